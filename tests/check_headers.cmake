# Compiles each public header alone, as strict C99 with no feature macros
# (a host may build with exactly -std=c99 -pedantic, where <time.h> declares
# no POSIX types) and as C++, with warnings as errors.
file(GLOB headers ${INCLUDE}/kavro_rt/*.h)
file(MAKE_DIRECTORY ${WORK})
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
set(failed "")
foreach(h ${headers})
  get_filename_component(name ${h} NAME_WE)
  file(WRITE ${WORK}/${name}.c "#include <kavro_rt/${name}.h>\n")
  execute_process(COMMAND ${CC} ${flags} -std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only
                  -I${INCLUDE} ${WORK}/${name}.c RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    list(APPEND failed "${name}.h as C99:\n${err}")
  endif()
  execute_process(COMMAND ${CXX} ${flags} -std=c++20 -Wall -Wextra -Werror -fsyntax-only -x c++
                  -I${INCLUDE} ${WORK}/${name}.c RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    list(APPEND failed "${name}.h as C++:\n${err}")
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "${failed}")
endif()
list(LENGTH headers n)
message(STATUS "${n} headers compile as C99 and C++")
