# Fails when the shared library exports anything but its own API: names in
# the qs namespace (with their type information and virtual tables) and the
# C names that start with "Quarrystone" or "qs_".
#
# With HEADERS (C headers, ';'-separated), also fails when a function they
# declare with QS_C_API is not exported.
#
#   cmake -DLIBRARY=libquarrystone.so -DNM=nm [-DHEADERS=quarrystone.h] -P ExportedSymbols.cmake
execute_process(COMMAND ${NM} -D --defined-only -C "${LIBRARY}"
  RESULT_VARIABLE status OUTPUT_VARIABLE listing ERROR_VARIABLE error)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed: ${error}")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(allowed "^(qs::|(typeinfo|typeinfo name|vtable|VTT|guard variable) for qs::|Quarrystone|qs_)")
set(foreign "")
set(count 0)
foreach(line IN LISTS lines)
  # "<address> <type> <name>"
  if(NOT line MATCHES "^[0-9a-f]+ [A-Za-z] (.*)$")
    continue()
  endif()
  set(name "${CMAKE_MATCH_1}")
  math(EXPR count "${count} + 1")
  if(NOT name MATCHES "${allowed}")
    string(APPEND foreign "  ${name}\n")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()
set(missing "")
foreach(header IN LISTS HEADERS)
  file(READ "${header}" text)
  string(REGEX MATCHALL "QS_C_API[^;(]*[ *](qs_[a-z0-9_]+)\\(" declarations "${text}")
  if(NOT declarations)
    message(FATAL_ERROR "${header} declares no C functions")
  endif()
  foreach(declaration IN LISTS declarations)
    string(REGEX REPLACE ".*[ *](qs_[a-z0-9_]+)\\($" "\\1" function "${declaration}")
    if(NOT listing MATCHES "[0-9a-f]+ T ${function}\n")
      string(APPEND missing "  ${function}\n")
    endif()
  endforeach()
endforeach()
if(missing)
  message(FATAL_ERROR "${LIBRARY} does not export these C functions:\n${missing}")
endif()
if(foreign)
  message(FATAL_ERROR "${LIBRARY} exports names outside its API:\n${foreign}")
endif()
message(STATUS "${count} exported names, all the library's own")
