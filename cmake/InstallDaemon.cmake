# The daemon as a device runs it: the program and its manual page; its systemd unit and what comes with it for systemd-tmpfiles
# and firewalld. The unit names the program by its full path, which is known only when --prefix is.
set(TARN_UNIT_DIR lib/systemd/system CACHE STRING "Where the systemd unit goes, below the prefix; empty for none")

configure_file(packaging/tarnddpd.8 ${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.8 @ONLY)
install(TARGETS tarnddpd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
if(TARN_UNIT_DIR)
  install(CODE "
    get_filename_component(daemon_path \"${CMAKE_INSTALL_SBINDIR}/tarnddpd\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/packaging/tarnddpd.service.in\"
                   \"${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.service\" @ONLY)" COMPONENT daemon)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.service DESTINATION ${TARN_UNIT_DIR} COMPONENT daemon)
  install(FILES packaging/tarnddpd.tmpfiles DESTINATION lib/tmpfiles.d RENAME tarnddpd.conf COMPONENT daemon)
  install(FILES packaging/tarnddpd.xml DESTINATION lib/firewalld/services COMPONENT daemon)
endif()
