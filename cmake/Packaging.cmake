# Desktop integration and the Debian package. The executables and the terminal
# document's assets install themselves (app/, node/, terminal/); this adds what
# a desktop needs to list the application, and CPack's settings for
# scripts/package.sh.
include(GNUInstallDirs)

set(HARBORLATTICE_APP_ID com.quarrynotch.harborlattice)
set(_hl_linux ${CMAKE_SOURCE_DIR}/packaging/linux)

install(FILES ${_hl_linux}/${HARBORLATTICE_APP_ID}.desktop
  DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${_hl_linux}/${HARBORLATTICE_APP_ID}.svg
  DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
# The small sizes are drawn on their own pixel grids (packaging/linux/icons).
foreach(_size 16 24 32)
  install(FILES ${_hl_linux}/icons/${_size}.png
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${_size}x${_size}/apps
    RENAME ${HARBORLATTICE_APP_ID}.png)
endforeach()
install(FILES ${_hl_linux}/${HARBORLATTICE_APP_ID}.metainfo.xml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)

# The manual pages and the package's changelog, compressed without a time
# stamp as Debian's tools expect, and its copyright.
set(_hl_compressed)
foreach(_name changelog harborlattice.1 harborlattice-node.1)
  set(_output ${CMAKE_BINARY_DIR}/packaging/${_name}.gz)
  add_custom_command(OUTPUT ${_output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
    COMMAND sh -c "gzip -n -9 -c '${_hl_linux}/${_name}' > '${_output}'"
    DEPENDS ${_hl_linux}/${_name}
    VERBATIM)
  list(APPEND _hl_compressed ${_output})
endforeach()
add_custom_target(package_documents ALL DEPENDS ${_hl_compressed})
install(FILES ${CMAKE_BINARY_DIR}/packaging/harborlattice.1.gz
  ${CMAKE_BINARY_DIR}/packaging/harborlattice-node.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${_hl_linux}/copyright ${CMAKE_BINARY_DIR}/packaging/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/harborlattice)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME harborlattice)
set(CPACK_PACKAGE_VENDOR "Quarry Notch")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "terminals in tabs and split panes, kept per project")
set(CPACK_PACKAGE_DESCRIPTION [=[
Harborlattice is a desktop application for a person who works in many
terminals across several projects. Each project gets a saved workspace of
tabs and split panes, and one scratch workspace holds terminals that belong
to no project.
.
The shells live in a per-user daemon, harborlattice-node, so a terminal
survives a restart of the application and is reattached on the next start.]=])
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quarry Notch <harborlattice@quarrynotch.com>")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends comes from the shared libraries the executables link (dpkg-shlibdeps);
# the platform plugins that draw the window are loaded, not linked, so they are
# named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
include(CPack)

add_subdirectory(${CMAKE_SOURCE_DIR}/packaging ${CMAKE_BINARY_DIR}/packaging)
