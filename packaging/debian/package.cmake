# CPack's view of the Debian package: cpack --config CPackConfig.cmake.

set(debian "${CMAKE_CURRENT_LIST_DIR}")
set(made "${CMAKE_CURRENT_BINARY_DIR}/debian")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrel)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "Tavrel Composer developers <composer@tavrel.invalid>")
set(CPACK_PACKAGE_VENDOR Tavrel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "composer of walls of live channels
Draws 4 to 36 live channels, from files, networks and cameras, into one
picture, each with label, selection frame, audio meters and alarms, and
writes it with the audio of all channels to files, streams and a page for
operators. A wall is a file in /etc/tavrel and runs as the service
tavrel@NAME.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd-standalone-sysusers | systemd-sysusers, fonts-dejavu-core")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-noto-core, fonts-noto-cjk, fonts-noto-color-emoji")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  "${debian}/conffiles" "${debian}/postinst" "${debian}/prerm" "${debian}/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Some files are outside the prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)

# Documents that only the package has.
install(CODE "
  set(debian \"${debian}\")
  set(made \"${made}\")
  set(docs \"${TAVREL_INSTALL_DOCDIR}\")
  set(version \"${PROJECT_VERSION}\")
  set(news \"${PROJECT_SOURCE_DIR}/CHANGELOG.md\")")
install(SCRIPT "${debian}/documents.cmake")

include(CPack)
