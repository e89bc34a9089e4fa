# Installation: both libraries, their headers, a CMake package (so that a
# project does find_package(KelTSFileStorage 2) and links Kel::TSFileStorage)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(KELTS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KelTSFileStorage)

install(TARGETS KelLogger KelTSFileStorage
  EXPORT KelTSFileStorageTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/lib/KelTSFileStorage/include/
                  ${PROJECT_SOURCE_DIR}/lib/KelLogger/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KelTSFileStorage
  FILES_MATCHING PATTERN "*.h")

install(EXPORT KelTSFileStorageTargets
  NAMESPACE Kel::
  DESTINATION ${KELTS_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KelTSFileStorageConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KelTSFileStorageConfig.cmake
  INSTALL_DESTINATION ${KELTS_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KelTSFileStorageConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelTSFileStorageConfig.cmake
              ${PROJECT_BINARY_DIR}/KelTSFileStorageConfigVersion.cmake
  DESTINATION ${KELTS_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/KelTSFileStorage.pc.in
  ${PROJECT_BINARY_DIR}/KelTSFileStorage.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KelTSFileStorage.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
