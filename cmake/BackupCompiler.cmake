# What every target of the tree is compiled with, carried by one INTERFACE target.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(BACKUP_CCACHE ccache)
if(BACKUP_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${BACKUP_CCACHE}")
endif()

file(RELATIVE_PATH BACKUP_RELATIVE_ROOT "${CMAKE_BINARY_DIR}" "${CMAKE_SOURCE_DIR}")
string(REGEX REPLACE "/$" "" BACKUP_RELATIVE_ROOT "${BACKUP_RELATIVE_ROOT}") # there for a root above
add_library(BackupCompiler INTERFACE)
target_compile_features(BackupCompiler INTERFACE cxx_std_20)
target_compile_options(BackupCompiler INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual -Wundef
  $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>
  $<$<BOOL:${BACKUP_WERROR}>:-Werror>
  # Errors report the path below the root, or below libkrt/, so both are taken off; the longer one comes
  # last because GCC lets the last match win. A compiler cache may hand over paths relative to the build.
  "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=" "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/libkrt/="
  "-fmacro-prefix-map=${BACKUP_RELATIVE_ROOT}/=" "-fmacro-prefix-map=${BACKUP_RELATIVE_ROOT}/libkrt/=")
if(BACKUP_COVERAGE)
  target_compile_options(BackupCompiler INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(BackupCompiler INTERFACE --coverage)
endif()
if(BACKUP_SANITIZE)
  target_compile_options(BackupCompiler INTERFACE
    "-fsanitize=${BACKUP_SANITIZE}" -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(BackupCompiler INTERFACE "-fsanitize=${BACKUP_SANITIZE}")
endif()

# For tests, which run for milliseconds and compile for seconds: what is tested is optimized, the test isn't.
add_library(BackupTestCompiler INTERFACE)
target_link_libraries(BackupTestCompiler INTERFACE BackupCompiler)
target_compile_options(BackupTestCompiler INTERFACE "$<$<NOT:$<CONFIG:Debug>>:-O0;-g1>")

# The headers that take most of the time of a build, read once for each target. Not for everyday builds: a compiler cache
# can't share the objects, and a header that a source forgets to include is not noticed.
option(BACKUP_PRECOMPILE "precompile headers" OFF)
function(backup_precompile target)
  if(BACKUP_PRECOMPILE)
    target_precompile_headers(${target} PRIVATE <algorithm> <filesystem> <functional> <map> <memory> <optional> <string>
      <vector> ${ARGN} "${CMAKE_SOURCE_DIR}/libkrt/Krt/Exception/Raise.h")
  endif()
endfunction()
