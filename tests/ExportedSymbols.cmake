# Fails when the shared library exports anything but its own API: names in
# the qs namespace (with their type information and virtual tables) and the
# C names that start with "Quarrystone" or "qs_".
#
# With HEADERS (C headers, ';'-separated), also fails when a function they
# declare with QS_C_API is not exported.
#
# With COMPONENTS (the optional components' static archives, separated by
# spaces), which a host links together with the shared library, also fails
# when they use a name of the library that neither the shared library
# exports nor a component defines, and, with COMPONENT_HEADERS (spaces), when
# a function those headers declare is defined by no component.
#
#   cmake -DLIBRARY=libquarrystone.so -DNM=nm [-DHEADERS=quarrystone.h]
#     [-DCOMPONENTS="libquarrystone_gtk.a ..." -DCOMPONENT_HEADERS="quarrystone_gtk.h ..."]
#     -P ExportedSymbols.cmake
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
# Appends to `missing` each QS_C_API function of `headers` that `defined`
# (an nm listing) does not define.
function(check_declared headers defined)
  foreach(header IN LISTS headers)
    file(READ "${header}" text)
    string(REGEX MATCHALL "QS_C_API[^;(]*[ *](qs_[a-z0-9_]+)\\(" declarations "${text}")
    if(NOT declarations)
      message(FATAL_ERROR "${header} declares no C functions")
    endif()
    foreach(declaration IN LISTS declarations)
      string(REGEX REPLACE ".*[ *](qs_[a-z0-9_]+)\\($" "\\1" function "${declaration}")
      if(NOT defined MATCHES "[0-9a-f]+ T ${function}\n")
        string(APPEND missing "  ${function}\n")
      endif()
    endforeach()
  endforeach()
  set(missing "${missing}" PARENT_SCOPE)
endfunction()

set(missing "")
check_declared("${HEADERS}" "${listing}")
if(missing)
  message(FATAL_ERROR "${LIBRARY} does not export these C functions:\n${missing}")
endif()

separate_arguments(COMPONENTS UNIX_COMMAND "${COMPONENTS}")
separate_arguments(COMPONENT_HEADERS UNIX_COMMAND "${COMPONENT_HEADERS}")
if(COMPONENTS)
  execute_process(COMMAND ${NM} -C ${COMPONENTS}
    RESULT_VARIABLE status OUTPUT_VARIABLE components ERROR_VARIABLE error)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${NM} failed: ${error}")
  endif()
  # Every "U" reference to the library's names must meet a definition in the
  # shared library's exports or in a component (lines "<address> <type> name").
  string(REGEX MATCHALL "\n +U (qs::|qs_)[^\n]*" references "\n${components}")
  string(REGEX REPLACE "\n +U [^\n]*" "" definitions "\n${listing}\n${components}\n")
  set(unresolved "")
  foreach(reference IN LISTS references)
    string(REGEX REPLACE "^\n +U " "" name "${reference}")
    string(FIND "${definitions}" " ${name}\n" found)
    string(FIND "${unresolved}" "  ${name}\n" listed)
    if(found EQUAL -1 AND listed EQUAL -1)
      string(APPEND unresolved "  ${name}\n")
    endif()
  endforeach()
  if(unresolved)
    message(FATAL_ERROR "the components use names ${LIBRARY} does not export:\n${unresolved}")
  endif()
  set(missing "")
  check_declared("${COMPONENT_HEADERS}" "${components}")
  if(missing)
    message(FATAL_ERROR "no component defines these C functions:\n${missing}")
  endif()
endif()
if(foreign)
  message(FATAL_ERROR "${LIBRARY} exports names outside its API:\n${foreign}")
endif()
message(STATUS "${count} exported names, all the library's own")
