include(CMakePackageConfigHelpers)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kvo-transfer)
configure_package_config_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/kvo-transfer-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kvo-transfer-config.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kvo-transfer-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kvo-transfer-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kvo-transfer-config-version.cmake
        DESTINATION ${config_dir})
install(EXPORT kvo-transfer-targets NAMESPACE kvo:: DESTINATION ${config_dir})
