# The XML-RPC library as other programs on the device find it: headers below include/tarn, the static libraries, a CMake
# package with the optional component "ini", and pkg-config files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tarnxmlrpc)
set_target_properties(tarnbase PROPERTIES EXPORT_NAME base)
set_target_properties(tarnnet PROPERTIES EXPORT_NAME net)

install(TARGETS tarnbase tarnnet tarnxmlrpc EXPORT tarnxmlrpc-targets COMPONENT library)
install(EXPORT tarnxmlrpc-targets NAMESPACE tarnxmlrpc:: DESTINATION ${package_dir} COMPONENT library)
foreach(folder base net xmlrpc)
  install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn COMPONENT library
          FILES_MATCHING PATTERN "*.h" PATTERN "XmlReader.h" EXCLUDE PATTERN "XmlSurvey.h" EXCLUDE
          PATTERN "XmlScan.h" EXCLUDE PATTERN "Locale.h" EXCLUDE PATTERN "ini" EXCLUDE)
endforeach()

if(TARGET tarnxmlrpc_ini)
  set_target_properties(tarnxmlrpc_ini PROPERTIES EXPORT_NAME ini)
  install(TARGETS tarnxmlrpc_ini EXPORT tarnxmlrpc-ini-targets COMPONENT library)
  install(EXPORT tarnxmlrpc-ini-targets NAMESPACE tarnxmlrpc:: DESTINATION ${package_dir} COMPONENT library)
endif()

write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
configure_package_config_file(cmake/tarnxmlrpc-config.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config.cmake
                              INSTALL_DESTINATION ${package_dir})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config-version.cmake
        DESTINATION ${package_dir} COMPONENT library)

foreach(name tarnxmlrpc tarnxmlrpc-ini)
  if(name STREQUAL tarnxmlrpc OR TARGET tarnxmlrpc_ini)
    configure_file(cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT library)
  endif()
endforeach()
