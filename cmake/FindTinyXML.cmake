# The target TinyXML, for this tree and for who links an installed static library: it is in no export of ours.
find_path(TINYXML_INCLUDE_DIR tinyxml.h)
find_library(TINYXML_LIBRARY tinyxml)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(TinyXML REQUIRED_VARS TINYXML_LIBRARY TINYXML_INCLUDE_DIR)
mark_as_advanced(TINYXML_INCLUDE_DIR TINYXML_LIBRARY)

if(TinyXML_FOUND AND NOT TARGET TinyXML)
  add_library(TinyXML INTERFACE IMPORTED)
  target_include_directories(TinyXML SYSTEM INTERFACE "${TINYXML_INCLUDE_DIR}")
  # Debian builds TinyXML with its STL interface; callers must agree.
  target_compile_definitions(TinyXML INTERFACE TIXML_USE_STL)
  target_link_libraries(TinyXML INTERFACE "${TINYXML_LIBRARY}")
endif()
