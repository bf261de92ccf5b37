# Installation and the Debian package: the daemon, the admin command and the provisioning tool, the
# systemd unit and example configuration. The daemon's own paths (/etc/orbmux, /var/run/orbmux) are fixed,
# so the configuration goes to /etc whatever the prefix.
include(GNUInstallDirs)


install(TARGETS orbmux RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The admin command is built by its own CMake file; it is installed wherever that exists.
if(TARGET orbmux-ctl)
  install(TARGETS orbmux-ctl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/orbmux-tenant DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The unit names the daemon where this install puts it: the prefix is known only now (CPack installs
# under /usr whatever the build was configured with).
install(CODE "
  set(sbindir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/orbmux.service.in\"
                 \"${PROJECT_BINARY_DIR}/packaging/orbmux.service\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\" TYPE FILE
       FILES \"${PROJECT_BINARY_DIR}/packaging/orbmux.service\")
")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/orbmux.conf ${PROJECT_SOURCE_DIR}/packaging/http.conf
        DESTINATION /etc/orbmux)
install(FILES ${PROJECT_SOURCE_DIR}/docs/operations.md ${PROJECT_SOURCE_DIR}/docs/tenants.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orbmux)
set(CPACK_PACKAGE_VENDOR orbmux)
set(CPACK_PACKAGE_CONTACT "orbmux maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "S3 object storage server on plain files")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# The tool is Python; the libraries come from dpkg-shlibdeps where it is at hand, else by name.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3, libssl3, libmxml1, libjson-c5, libuuid1")
endif()
# The files in /etc are the operator's: an upgrade keeps what they changed.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
