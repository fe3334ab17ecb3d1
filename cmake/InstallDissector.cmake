# The Wireshark dissector, for the PC of whoever looks at the protocol: where Wireshark of the same prefix looks for plug-ins.
install(FILES packaging/tarnddp.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT dissector)
