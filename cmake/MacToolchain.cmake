# Builds for macOS on Linux; .ci/macos.sh prepares what it uses and passes
#   BACKUP_MAC_CPU   aarch64 or x86_64
#   BACKUP_MAC_ROOT  a folder with the compiler and its tools in bin/, and the dependencies in include/ and lib/
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BACKUP_MAC_CPU BACKUP_MAC_ROOT)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 22) # of macOS 13
set(CMAKE_SYSTEM_PROCESSOR "${BACKUP_MAC_CPU}")
set(CMAKE_CXX_COMPILER "${BACKUP_MAC_ROOT}/bin/c++")
set(CMAKE_AR "${BACKUP_MAC_ROOT}/bin/ar")
set(CMAKE_RANLIB "${BACKUP_MAC_ROOT}/bin/ranlib")
# Needed by an installation alone, which a cross build does not do.
set(CMAKE_INSTALL_NAME_TOOL "${CMAKE_COMMAND}")

# Nothing of the building system is used but its programs: headers of glibc would hide those of macOS.
set(CMAKE_FIND_ROOT_PATH "${BACKUP_MAC_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
