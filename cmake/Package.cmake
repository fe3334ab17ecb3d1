# Debian packages of what runs by itself: `cmake --build build --target package` makes one for each program that is built.
# Maintainer scripts, changelog and copyright come from packaging/debian.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_COMPONENTS_ALL daemon)
if(TARGET tarnddp)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "The tarnddp developers <tarnddp@packages.example.org>")
set(CPACK_PACKAGE_VENDOR tarnddp)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prepare.cmake)
set(CPACK_TARN_SOURCE_DIR ${CMAKE_CURRENT_SOURCE_DIR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME tarnddpd)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS net-tools)  # the command `route`
set(CPACK_DEBIAN_DAEMON_DESCRIPTION "device discovery daemon for measurement devices
Answers UDP broadcast and multicast requests of tools that do not know the
device's address with one line of facts about it, and takes network settings
from them. The daemon obeys whoever reaches its ports: read SECURITY in
tarnddpd(8) before it meets a network that is not yours.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tarnddp)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "find and configure measurement devices on the local network
Asks in every way that such devices hear, shows who answered, and sets the
address of a chosen one. Needs no configuration, no service and no root.")

include(CPack)
