# cmake --install: the libraries, their headers under their include paths, the program, and what CMake and
# pkg-config need to find them.
include(CMakePackageConfigHelpers)

set(BACKUP_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Backup")
install(TARGETS Krt Backup EXPORT BackupTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT BackupTargets NAMESPACE Backup:: DESTINATION "${BACKUP_CMAKE_DIR}")
install(TARGETS kbagent RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# Headers that only the libraries' own sources include stay at home.
set(BACKUP_PRIVATE_HEADERS
  Core/OpenSSL/ File/LegacyVamHeader.h File/YSelectionNodeWalk.h File/YSelectionRulesBelow.h Util/BuildInfo.h
  Util/Unix/Linux/SystemdUnit.h)
set(KRT_PRIVATE_HEADERS
  Environment/Unix/ Exception/OsErrorName.h Exception/Unix/ File/Unix/ Log/YLogContext.h Profile/Unix/
  String/Ascii.h Thread/Unix/NativeThread.h
  Thread/YReadWriteMutexInternal.h)
function(backup_install_headers directory)
  set(excluded)
  foreach(header IN LISTS ARGN)
    string(REPLACE "." "\\." header "${header}")
    list(APPEND excluded REGEX "/${header}" EXCLUDE)
  endforeach()
  install(DIRECTORY "${directory}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    FILES_MATCHING PATTERN "*.h" PATTERN "*.inl" ${excluded})
endfunction()
backup_install_headers("${CMAKE_SOURCE_DIR}/Backup" ${BACKUP_PRIVATE_HEADERS})
backup_install_headers("${CMAKE_SOURCE_DIR}/libkrt/Krt" ${KRT_PRIVATE_HEADERS})

configure_package_config_file(cmake/BackupConfig.cmake.in "${CMAKE_BINARY_DIR}/BackupConfig.cmake"
  INSTALL_DESTINATION "${BACKUP_CMAKE_DIR}")
# Before version 1 each minor version may change what the headers promise.
write_basic_package_version_file("${CMAKE_BINARY_DIR}/BackupConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_BINARY_DIR}/BackupConfig.cmake" "${CMAKE_BINARY_DIR}/BackupConfigVersion.cmake"
  "${CMAKE_SOURCE_DIR}/cmake/BackupDependencies.cmake"
  DESTINATION "${BACKUP_CMAKE_DIR}")

# The prefix is told from where the file lies, so that an installed tree may be moved. A static library's users
# link what it links.
file(RELATIVE_PATH BACKUP_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
set(BACKUP_PC_LIBS_PRIVATE "-lboost_json -lssl -lcrypto -ltinyxml -pthread")
configure_file(packaging/backup.pc.in "${CMAKE_BINARY_DIR}/backup.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/backup.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
