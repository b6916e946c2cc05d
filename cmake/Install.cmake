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
# The C interface's headers sit at the include root, as C libraries' do.
install(FILES include/quarrystone.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET quarrystone_gtk)
  install(FILES include/quarrystone_gtk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()
if(TARGET quarrystone_http)
  install(FILES include/quarrystone_http.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()
# The adapters' public headers live in their own include roots (so that the
# core's include path does not reach them) and install beside the others.
install(DIRECTORY src/platform/portable/include/ src/platform/linux/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY src/platform/fake/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarrystone/fake
        FILES_MATCHING PATTERN "*.h")
set(qs_install_targets quarrystone quarrystone_shared quarrystone_c quarrystone_fake)
if(TARGET quarrystone_gtk)
  list(APPEND qs_install_targets quarrystone_gtk quarrystone_gtk_shared quarrystone_http)
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
set(qs_pc_files quarrystone quarrystone-c)
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

# The Python package, where Debian's python3 finds it: /usr/lib/python3/
# dist-packages for the /usr prefix, <prefix>/lib/python3.X/dist-packages
# for any other (on sys.path for /usr/local; PYTHONPATH for a private one).
# It learns where the library was installed from _location.py.
find_program(QS_PYTHON3 python3 HINTS /usr/bin)
set(qs_python_version 3)
if(QS_PYTHON3)
  execute_process(COMMAND ${QS_PYTHON3} -c "import sys; print('%d.%d' % sys.version_info[:2])"
    OUTPUT_VARIABLE qs_python_version OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(qs_python_default lib/python3/dist-packages)
else()
  set(qs_python_default lib/python${qs_python_version}/dist-packages)
endif()
set(QS_PYTHON_INSTALL_DIR ${qs_python_default} CACHE STRING
  "Where cmake --install puts the Python package, relative to the prefix")
install(DIRECTORY python/quarrystone DESTINATION ${QS_PYTHON_INSTALL_DIR}
        PATTERN __pycache__ EXCLUDE PATTERN _location.py EXCLUDE)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/python/_location.py CONTENT
  "# Written by cmake --install: the shared library installed with this package.\nLIBRARY = \"${CMAKE_INSTALL_FULL_LIBDIR}/$<TARGET_SONAME_FILE_NAME:quarrystone_shared>\"\n")
install(FILES ${PROJECT_BINARY_DIR}/python/_location.py
        DESTINATION ${QS_PYTHON_INSTALL_DIR}/quarrystone)
