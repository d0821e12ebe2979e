# Compiles each public header alone, as a client would include it (with -I,
# so its warnings are not silenced as a system header's are), and fails on
# any warning. Usage:
#   cmake -DCXX=g++ -DINCLUDE=include -DWORK=dir -P check_headers.cmake
set(flags -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Werror)
file(GLOB headers RELATIVE ${INCLUDE} ${INCLUDE}/korvel/*.h)
if(NOT headers)
  message(FATAL_ERROR "no headers in ${INCLUDE}/korvel")
endif()
file(MAKE_DIRECTORY ${WORK})
set(failed "")
foreach(header IN LISTS headers)
  get_filename_component(name ${header} NAME_WE)
  file(WRITE ${WORK}/${name}.cpp "#include \"${header}\"\n")
  execute_process(COMMAND ${CXX} ${flags} -I${INCLUDE} ${WORK}/${name}.cpp
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message("${header}:\n${out}")
    list(APPEND failed ${header})
  endif()
endforeach()
list(LENGTH headers count)
if(failed)
  message(FATAL_ERROR "not clean under ${flags}: ${failed}")
endif()
message(STATUS "${count} public headers compile alone without warnings")
