# Install rules: headers, libraries, an exported find_package(Quarrystone)
# config and a pkg-config file.
include(CMakePackageConfigHelpers)

# The GTK headers belong to the optional web view component.
# The GTK and HTTP headers belong to the optional web view and HTTP components.
# The libsoup header belongs to the optional libsoup component.
if(TARGET quarrystone_soup)
  install(DIRECTORY include/quarrystone DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
elseif(TARGET quarrystone_gtk)
  install(DIRECTORY include/quarrystone DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          PATTERN SoupProtection.h EXCLUDE)
else()
  install(DIRECTORY include/quarrystone DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          PATTERN gtk EXCLUDE PATTERN http EXCLUDE)
endif()
# The adapters' public headers live in their own include roots (so that the
# core's include path does not reach them) and install beside the others.
install(DIRECTORY src/platform/portable/include/ src/platform/linux/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY src/platform/fake/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarrystone/fake
        FILES_MATCHING PATTERN "*.h")
set(qs_install_targets quarrystone quarrystone_shared quarrystone_fake)
if(TARGET quarrystone_gtk)
  list(APPEND qs_install_targets quarrystone_gtk quarrystone_http)
endif()
if(TARGET quarrystone_soup)
  list(APPEND qs_install_targets quarrystone_soup)
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

# The .pc file finds its prefix from its own place, so an installed tree can
# be moved. It lies in <libdir>/pkgconfig, and libdir may have several parts
# (lib/x86_64-linux-gnu), so the way up is computed rather than assumed.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(QS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(QS_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH qs_pc_up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" qs_pc_up "${qs_pc_up}")
  set(QS_PC_PREFIX "\${pcfiledir}/${qs_pc_up}")
  set(QS_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(QS_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(QS_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(qs_pc_files quarrystone)
if(TARGET quarrystone_gtk)
  list(APPEND qs_pc_files quarrystone-gtk quarrystone-http)
endif()
if(TARGET quarrystone_soup)
  list(APPEND qs_pc_files quarrystone-soup)
endif()
foreach(pc ${qs_pc_files})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
