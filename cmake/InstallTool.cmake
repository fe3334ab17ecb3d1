# The tool as a PC runs it: the program, its manual page and the completion of its words in bash.
if(TARGET tarnddp)
  install(TARGETS tarnddp RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  configure_file(packaging/tarnddp.1 ${CMAKE_CURRENT_BINARY_DIR}/tarnddp.1 @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnddp.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
  install(FILES packaging/tarnddp.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tarnddp
          COMPONENT tool)
endif()
