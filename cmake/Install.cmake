# Install rules: headers, libraries, an exported find_package(Quarrystone)
# config and a pkg-config file.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/quarrystone DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY src/platform/fake/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarrystone/fake
        FILES_MATCHING PATTERN "*.h")
set(qs_install_targets quarrystone quarrystone_shared quarrystone_fake)
if(TARGET quarrystone_gtk)
  list(APPEND qs_install_targets quarrystone_gtk)
  install(DIRECTORY src/platform/gtk/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarrystone/gtk
          FILES_MATCHING PATTERN "*.h")
endif()
install(TARGETS ${qs_install_targets} EXPORT QuarrystoneTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QuarrystoneTargets NAMESPACE Quarrystone::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Quarrystone)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuarrystoneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuarrystoneConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Quarrystone)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuarrystoneConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuarrystoneConfig.cmake
              ${PROJECT_BINARY_DIR}/QuarrystoneConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Quarrystone)

configure_file(${PROJECT_SOURCE_DIR}/cmake/quarrystone.pc.in ${PROJECT_BINARY_DIR}/quarrystone.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quarrystone.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
