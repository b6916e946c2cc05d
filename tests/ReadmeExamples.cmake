# Extracts the code examples of a Markdown file and compiles each one, so the
# README cannot show code that does not build. An example is a fenced block
# right after a line "<!-- example: NAME.EXT -->"; .cpp examples are
# compiled as C++20, .c examples as C11, with warnings as errors.
#
#   cmake -DDOC=README.md -DOUT=dir -DCXX=g++ -DCC=gcc -DFLAGS="-I..." -P ReadmeExamples.cmake
#
# FLAGS and LIBS are extra compiler and linker arguments, separated by
# spaces. With LINK=ON the examples are linked with LIBS as well.
separate_arguments(FLAGS UNIX_COMMAND "${FLAGS}")
separate_arguments(LIBS UNIX_COMMAND "${LIBS}")
file(STRINGS "${DOC}" lines ENCODING UTF-8)
file(MAKE_DIRECTORY "${OUT}")
set(name "")
set(inside OFF)
set(examples "")
foreach(line IN LISTS lines)
  if(inside)
    if(line MATCHES "^```")
      set(inside OFF)
      file(WRITE "${OUT}/${name}" "${body}")
      list(APPEND examples "${name}")
      set(name "")
    else()
      string(APPEND body "${line}\n")
    endif()
  elseif(line MATCHES "^<!-- example: ([A-Za-z0-9_.-]+) -->")
    set(name "${CMAKE_MATCH_1}")
  elseif(name AND line MATCHES "^```")
    set(inside ON)
    set(body "")
  endif()
endforeach()
if(NOT examples)
  message(FATAL_ERROR "no examples marked in ${DOC}")
endif()

# The C++ library's pkg-config flags carry the C++ standard; a C compiler
# rejects it, so C examples get the flags without it.
set(c_flags ${FLAGS})
list(FILTER c_flags EXCLUDE REGEX "^-std=c\\+\\+")
foreach(example IN LISTS examples)
  if(example MATCHES "\\.c$")
    set(command ${CC} -std=c11 -pedantic -Wall -Wextra -Werror ${c_flags})
  else()
    set(command ${CXX} -std=c++20 -Wall -Wextra -Werror ${FLAGS})
  endif()
  list(APPEND command "${OUT}/${example}")
  if(LINK)
    list(APPEND command -o "${OUT}/${example}.out" ${LIBS})
  else()
    list(APPEND command -fsyntax-only)
  endif()
  execute_process(COMMAND ${command} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${example} from ${DOC} does not compile:\n${command}\n${out}")
  endif()
  message(STATUS "${example}: compiles")
endforeach()
