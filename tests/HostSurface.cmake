# Checks what a host can name through the public headers: the host contract
# (host-surface/contract.cpp) compiles, and every line of
# host-surface/internals.cpp marked "internal" is a compile error.
#
#   cmake -DCXX=g++ -DFLAGS="-I..." -P HostSurface.cmake
#
# FLAGS are the compiler arguments a host would use (the include path of the
# source tree, or pkg-config's for an installed copy), separated by spaces.
separate_arguments(FLAGS UNIX_COMMAND "${FLAGS}")
set(dir "${CMAKE_CURRENT_LIST_DIR}/host-surface")
set(ENV{LC_ALL} C)

execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only -Wall -Wextra -Werror ${FLAGS}
    "${dir}/contract.cpp"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the host contract does not compile:\n${out}")
endif()

# One run reports every error; each marked line must be among them, so no
# probe passes for a reason that has nothing to do with it.
execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only ${FLAGS} "${dir}/internals.cpp"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(status EQUAL 0)
  message(FATAL_ERROR "a host can name the manager's internals: internals.cpp compiles")
endif()
file(STRINGS "${dir}/internals.cpp" lines)
set(number 0)
set(probes 0)
foreach(line IN LISTS lines)
  math(EXPR number "${number} + 1")
  if(NOT line MATCHES "// internal$")
    continue()
  endif()
  math(EXPR probes "${probes} + 1")
  if(NOT out MATCHES "internals\\.cpp:${number}:[0-9]+: error")
    message(FATAL_ERROR "a host can name what line ${number} reaches:\n${line}\n${out}")
  endif()
endforeach()
if(probes EQUAL 0)
  message(FATAL_ERROR "no line of internals.cpp is marked internal")
endif()
message(STATUS "the host contract compiles; ${probes} internal names are out of reach")
