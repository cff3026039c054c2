# Warnings and sanitizers for the project's own targets.
add_library(qz_build_options INTERFACE)
target_compile_options(qz_build_options INTERFACE -Wall -Wextra -Werror)
# GCC 12 reports overlapping copies inside std::basic_string at -O2 where
# there are none (a known defect of its -Wrestrict); keep the rest of -Werror.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(qz_build_options INTERFACE -Wno-restrict)
endif()

# Clang checks the lock annotations (QZ_GUARDED_BY, QZ_REQUIRES, ...) of
# foundation/core/sync/Mutex.hpp; `make thread-safety` builds with it.
option(QZ_THREAD_SAFETY_ANALYSIS "Build with Clang's -Wthread-safety" OFF)
if(QZ_THREAD_SAFETY_ANALYSIS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QZ_THREAD_SAFETY_ANALYSIS needs Clang (CMAKE_CXX_COMPILER=clang++)")
  endif()
  target_compile_options(qz_build_options INTERFACE -Wthread-safety)
endif()

if(QZ_SANITIZER)
  string(REPLACE "," ";" _qz_sanitizers "${QZ_SANITIZER}")
  foreach(_qz_sanitizer IN LISTS _qz_sanitizers)
    if(NOT _qz_sanitizer MATCHES "^(address|undefined|thread)$")
      message(FATAL_ERROR "Unknown sanitizer '${_qz_sanitizer}' in QZ_SANITIZER")
    endif()
  endforeach()
  add_compile_options(-fsanitize=${QZ_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QZ_SANITIZER})
endif()

# Rebuilds of several build folders (release, sanitizers, benchmarks) share
# compiled objects through ccache when it is installed.
find_program(QZ_CCACHE ccache)
if(QZ_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QZ_CCACHE}")
endif()
