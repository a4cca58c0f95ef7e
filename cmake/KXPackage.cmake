# The CMake package of the installed engine: KXTransferConfig.cmake, its version file and the
# exported targets (the engine and the platform libraries it loads), under lib/cmake/KXTransfer.
include(CMakePackageConfigHelpers)

set(KX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KXTransfer)
install(EXPORT KXTransferTargets NAMESPACE KXTransfer:: DESTINATION ${KX_PACKAGE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KXTransferConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/KXTransferConfig.cmake
  INSTALL_DESTINATION ${KX_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/KXTransferConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/package/KXTransferConfig.cmake
  ${PROJECT_BINARY_DIR}/package/KXTransferConfigVersion.cmake
  DESTINATION ${KX_PACKAGE_DIR})

# A client sets the server address and session through the server-API library's configuration
# header, so that one header (and its export header) is installed too, under include/ServerApi,
# and KXTransfer::ServerApi carries it.
target_include_directories(ServerApi INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ServerApi>)
install(FILES
  ${PROJECT_SOURCE_DIR}/framework/platform/ServerApi/ServerApiConfig.h
  ${PROJECT_BINARY_DIR}/framework/platform/ServerApi/serverapi_export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ServerApi)
