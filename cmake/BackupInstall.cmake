# cmake --install: the libraries, their headers under their include paths, the program with its manual page and
# shell completion, and what CMake and pkg-config need to find them.
include(CMakePackageConfigHelpers)

set(BACKUP_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Backup")
install(TARGETS Krt Backup EXPORT BackupTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT BackupTargets NAMESPACE Backup:: DESTINATION "${BACKUP_CMAKE_DIR}")
install(TARGETS kbagent RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# Headers that only the libraries' own sources include are not installed.
set(BACKUP_PRIVATE_HEADERS
  Core/OpenSSL/ File/GlobIndex.h File/LegacyVamHeader.h File/NameIndex.h File/YSelectionTrace.h File/YSelectionTree.h
  Util/BuildInfo.h Util/Unix/Linux/SystemdUnit.h
  Volume/Unix/Discovery.h)
if(APPLE)
  list(APPEND BACKUP_PRIVATE_HEADERS Util/Unix/Linux/) # what is not built there
endif()
set(KRT_PRIVATE_HEADERS
  Environment/Unix/ Exception/Unix/ File/Unix/ JSON/SharedBlock.h JSON/YValue.inl Log/YLogContext.h
  String/Utf8.h Thread/Unix/NativeThread.h Volume/Unix/)
function(backup_install_headers root folder)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE "${root}" "${root}/${folder}/*.h" "${root}/${folder}/*.inl")
  foreach(private IN LISTS ARGN)
    list(FILTER headers EXCLUDE REGEX "^${folder}/${private}")
  endforeach()
  foreach(header IN LISTS headers)
    cmake_path(GET header PARENT_PATH place)
    install(FILES "${root}/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${place}")
  endforeach()
  list(TRANSFORM headers PREPEND "${root}/")
  set(BACKUP_PUBLIC_HEADERS ${BACKUP_PUBLIC_HEADERS} ${headers} PARENT_SCOPE)
endfunction()
backup_install_headers("${CMAKE_SOURCE_DIR}" Backup ${BACKUP_PRIVATE_HEADERS})
backup_install_headers("${CMAKE_SOURCE_DIR}/libkrt" Krt ${KRT_PRIVATE_HEADERS})

configure_package_config_file(cmake/BackupConfig.cmake.in "${CMAKE_BINARY_DIR}/BackupConfig.cmake"
  INSTALL_DESTINATION "${BACKUP_CMAKE_DIR}")
# Before version 1 each minor version may change what the headers promise.
write_basic_package_version_file("${CMAKE_BINARY_DIR}/BackupConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_BINARY_DIR}/BackupConfig.cmake" "${CMAKE_BINARY_DIR}/BackupConfigVersion.cmake"
  "${CMAKE_SOURCE_DIR}/cmake/FindTinyXML.cmake"
  DESTINATION "${BACKUP_CMAKE_DIR}")

# The prefix is derived from the location of the file, so that an installed tree may be moved. Users of a static library
# link the libraries that it uses.
file(RELATIVE_PATH BACKUP_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
set(BACKUP_PC_LIBS_PRIVATE "-lboost_json -lssl -lcrypto -ltinyxml -pthread")
configure_file(packaging/backup.pc.in "${CMAKE_BINARY_DIR}/backup.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/backup.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(FILES "${CMAKE_SOURCE_DIR}/packaging/kbagent.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
install(FILES "${CMAKE_SOURCE_DIR}/packaging/kbagent.bash"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME kbagent)

# The reference of the headers: cmake --build BUILD --target documentation, then documentation/html/index.html in
# that folder. The target looks for doxygen when it runs. ReaderSlots.h is installed only for YReadWriteMutex.h.
set(BACKUP_DOCUMENTED ${BACKUP_PUBLIC_HEADERS} "${CMAKE_SOURCE_DIR}/docs/namespaces.dox")
list(FILTER BACKUP_DOCUMENTED EXCLUDE REGEX "ReaderSlots\\.h$")
list(JOIN BACKUP_DOCUMENTED "\" \"" BACKUP_DOCUMENTED)
set(BACKUP_DOCUMENTED "\"${BACKUP_DOCUMENTED}\"")
configure_file(docs/Doxyfile.in "${CMAKE_BINARY_DIR}/Doxyfile" @ONLY)
add_custom_target(documentation VERBATIM
  COMMAND "${CMAKE_COMMAND}" -D "DOXYFILE=${CMAKE_BINARY_DIR}/Doxyfile" -P "${CMAKE_SOURCE_DIR}/cmake/Documentation.cmake")

# What the checks of .ci/run go through, one header a line.
list(JOIN BACKUP_PUBLIC_HEADERS "\n" BACKUP_PUBLIC_HEADER_LINES)
file(WRITE "${CMAKE_BINARY_DIR}/public-headers" "${BACKUP_PUBLIC_HEADER_LINES}\n")
