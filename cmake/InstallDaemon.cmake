# The daemon as a device runs it: the program, its systemd unit and its manual page. The unit names the program by its
# full path, which is known only when --prefix is.

install(TARGETS tarnddpd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(FILES packaging/tarnddpd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
install(CODE "
  get_filename_component(daemon_path \"${CMAKE_INSTALL_SBINDIR}/tarnddpd\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/packaging/tarnddpd.service.in\"
                 \"${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.service\" @ONLY)" COMPONENT daemon)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnddpd.service DESTINATION lib/systemd/system COMPONENT daemon)
