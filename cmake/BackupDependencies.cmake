# Everything the tree links that it does not build itself. All of it comes from Debian 12. What users of the
# installed libraries need, BackupConfig.cmake.in finds again.
find_package(Threads REQUIRED)
find_package(LibArchive 3.6 REQUIRED)
find_package(CURL 7.88 REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS json)
find_package(OpenSSL 3 REQUIRED)
find_package(TinyXML REQUIRED)

find_path(UTF8CPP_INCLUDE_DIR utf8.h PATH_SUFFIXES utf8cpp REQUIRED)
add_library(Utf8Cpp INTERFACE)
target_include_directories(Utf8Cpp SYSTEM INTERFACE "${UTF8CPP_INCLUDE_DIR}")

find_path(ZSTD_INCLUDE_DIR zstd.h REQUIRED)
find_library(ZSTD_LIBRARY zstd REQUIRED)
add_library(Zstd INTERFACE)
target_include_directories(Zstd SYSTEM INTERFACE "${ZSTD_INCLUDE_DIR}")
target_link_libraries(Zstd INTERFACE "${ZSTD_LIBRARY}")

find_path(CLI11_INCLUDE_DIR CLI/CLI.hpp REQUIRED)
add_library(CLI11 INTERFACE)
target_include_directories(CLI11 SYSTEM INTERFACE "${CLI11_INCLUDE_DIR}")
