cmake_minimum_required(VERSION 3.25)
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

# What the compiler must refuse a client: an ignored acquire, a lock taken
# through a temporary handle, a language older than C++17 (with one clear
# message). A well-formed use compiles, so a failure below is the check's.
set(preamble "#include <korvel/fs_lock.h>\nusing Zentha::System::TimeUnit;\n")
set(good "bool f(koDirectoryReadWriteLock& rw) { auto w = rw.getWriteLock(); return w.acquire(1, TimeUnit::sSeconds()) && w.release(); }")
set(ignored "void f(koDirectoryExclusiveLock& l) { l.acquire(1, TimeUnit::sSeconds(), false); }")
set(temporary "bool f(koDirectoryReadWriteLock& rw) { return rw.getWriteLock().acquire(1, TimeUnit::sSeconds()); }")
set(released "void f(koDirectoryReadWriteLock::ReadLock& r) { r.release(); }")
foreach(use good ignored temporary released)
  file(WRITE ${WORK}/use_${use}.cpp "${preamble}${${use}}\n")
  execute_process(COMMAND ${CXX} ${flags} -I${INCLUDE} ${WORK}/use_${use}.cpp
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(use STREQUAL "good" AND NOT rc EQUAL 0)
    message(FATAL_ERROR "a well-formed use does not compile:\n${out}")
  elseif(NOT use STREQUAL "good" AND rc EQUAL 0)
    message(FATAL_ERROR "a misuse compiles: ${${use}}")
  endif()
endforeach()
# The headers themselves say nothing but that one line; a client's own
# uses of them fail after it.
foreach(header IN LISTS headers)
  get_filename_component(name ${header} NAME_WE)
  execute_process(COMMAND ${CXX} -std=c++14 -fsyntax-only -I${INCLUDE} ${WORK}/${name}.cpp
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  string(REGEX MATCHALL "error:" errors "${out}")
  list(LENGTH errors errorCount)
  if(rc EQUAL 0 OR NOT out MATCHES "need C\\+\\+17" OR NOT errorCount EQUAL 1)
    message(FATAL_ERROR "${header} under C++14 should give one clear error, got:\n${out}")
  endif()
endforeach()

# A client pays for what it includes: korvel/fs_lock.h stays light.
set(maxLines 60000)
execute_process(COMMAND ${CXX} -std=c++17 -E -I${INCLUDE} ${WORK}/fs_lock.cpp
                RESULT_VARIABLE rc OUTPUT_VARIABLE preprocessed)
string(REGEX MATCHALL "\n" lines "${preprocessed}")
list(LENGTH lines lineCount)
if(NOT rc EQUAL 0 OR lineCount GREATER maxLines)
  message(FATAL_ERROR "korvel/fs_lock.h preprocesses to ${lineCount} lines (at most ${maxLines})")
endif()
message(STATUS "misuse refused; korvel/fs_lock.h preprocesses to ${lineCount} lines")
