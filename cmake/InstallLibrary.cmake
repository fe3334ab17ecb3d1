# The XML-RPC library as other programs on the device find it: headers below include/tarn, the static libraries, a CMake
# package with the optional component "ini", pkg-config files and the examples.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tarnxmlrpc)
set(libraries tarnnet tarnxmlrpc)
set_target_properties(tarnnet PROPERTIES EXPORT_NAME net)

install(TARGETS ${libraries} EXPORT tarnxmlrpc-targets COMPONENT library)
install(EXPORT tarnxmlrpc-targets NAMESPACE tarnxmlrpc:: DESTINATION ${package_dir} COMPONENT library)
install(FILES net/CTCP.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn/net COMPONENT library)
install(FILES
  xmlrpc/CBase64.h xmlrpc/HttpHead.h xmlrpc/XmlRpcClient.h xmlrpc/XmlRpcClientTransport.h
  xmlrpc/XmlRpcClientTransportHTTP.h xmlrpc/XmlRpcException.h xmlrpc/XmlRpcLogHandler.h xmlrpc/XmlRpcUtil.h
  xmlrpc/XmlRpcValue.h xmlrpc/XmlTags.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn/xmlrpc COMPONENT library)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tarnxmlrpc COMPONENT library)
install(FILES docs/library.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tarnxmlrpc/docs COMPONENT library)

if(TARGET tarnxmlrpc_ini)
  list(APPEND libraries tarnxmlrpc_ini)
  set_target_properties(tarnxmlrpc_ini PROPERTIES EXPORT_NAME ini)
  install(TARGETS tarnxmlrpc_ini EXPORT tarnxmlrpc-ini-targets COMPONENT library)
  install(EXPORT tarnxmlrpc-ini-targets NAMESPACE tarnxmlrpc:: DESTINATION ${package_dir} COMPONENT library)
endif()

# So that a plug-in or a Python extension can be made of them, and as fast as without: nobody replaces their functions.
foreach(library ${libraries})
  set_target_properties(${library} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${library} PRIVATE -fno-semantic-interposition)
endforeach()

write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
configure_package_config_file(cmake/tarnxmlrpc-config.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config.cmake
                              INSTALL_DESTINATION ${package_dir})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tarnxmlrpc-config-version.cmake
        DESTINATION ${package_dir} COMPONENT library)

# The pkg-config files find the rest from where they are. Only with a library folder outside the prefix do they need to
# know the prefix, which is certain when they are installed.
set(pc_include "${CMAKE_INSTALL_INCLUDEDIR}/tarn")
if(NOT IS_ABSOLUTE "${pc_include}")
  string(PREPEND pc_include "\${prefix}/")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_prefix "\"\${CMAKE_INSTALL_PREFIX}\"")
else()
  file(RELATIVE_PATH pc_up "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
  set(pc_prefix "[[\${pcfiledir}/${pc_up}]]")
endif()
foreach(name tarnxmlrpc tarnxmlrpc-ini)
  if(name STREQUAL tarnxmlrpc OR TARGET tarnxmlrpc_ini)
    install(CODE "
      set(pc_prefix ${pc_prefix})
      set(pc_include [[${pc_include}]])
      foreach(path pc_prefix pc_include)
        string(REPLACE [[ ]] [[\\ ]] \${path} \"\${\${path}}\")
      endforeach()
      set(PROJECT_VERSION \"${PROJECT_VERSION}\")
      configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/cmake/${name}.pc.in\" \"${CMAKE_CURRENT_BINARY_DIR}/${name}.pc\" @ONLY)"
            COMPONENT library)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT library)
  endif()
endforeach()
