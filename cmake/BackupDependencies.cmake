# Everything the tree links that it does not build itself. All of it comes from Debian 12.
find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS json)
find_package(OpenSSL 3 REQUIRED)

find_path(TINYXML_INCLUDE_DIR tinyxml.h REQUIRED)
find_library(TINYXML_LIBRARY tinyxml REQUIRED)
# Imported, as it is to who links an installed static library: it is in no export of ours.
add_library(TinyXML INTERFACE IMPORTED)
target_include_directories(TinyXML SYSTEM INTERFACE "${TINYXML_INCLUDE_DIR}")
# Debian builds TinyXML with its STL interface; callers must agree.
target_compile_definitions(TinyXML INTERFACE TIXML_USE_STL)
target_link_libraries(TinyXML INTERFACE "${TINYXML_LIBRARY}")

find_path(UTF8CPP_INCLUDE_DIR utf8.h PATH_SUFFIXES utf8cpp REQUIRED)
add_library(Utf8Cpp INTERFACE)
target_include_directories(Utf8Cpp SYSTEM INTERFACE "${UTF8CPP_INCLUDE_DIR}")

find_path(ZSTD_INCLUDE_DIR zstd.h REQUIRED)
find_library(ZSTD_LIBRARY zstd REQUIRED)
add_library(Zstd INTERFACE)
target_include_directories(Zstd SYSTEM INTERFACE "${ZSTD_INCLUDE_DIR}")
target_link_libraries(Zstd INTERFACE "${ZSTD_LIBRARY}")
