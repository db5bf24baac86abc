# Installation rules and the Debian package, included at the end of the top-level CMakeLists.txt.
#
#   cmake --install build                   the system's directories: /usr/sbin, /etc/zunta.conf,
#                                           /usr/lib/systemd/system, /usr/lib/sysusers.d, ...
#   cmake --install build --prefix /opt/zt  every file below /opt/zt, the unit naming
#                                           /opt/zt/sbin/zunta-coord
#   cd build && cpack -G DEB                zunta-coord_2.11-1_<arch>.deb (armhf in a cross build tree)
#
# Every directory is relative to the prefix, so the prefix given when installing moves every file
# (GNUInstallDirs). The configuration directory of the /usr prefix is /etc, as GNUInstallDirs has
# it. An absolute directory stays where it is named: scripts/package.sh builds the packages for this
# machine and for 32-bit ARM with Debian's own (-DZUNTA_SYSTEMD_UNIT_DIR=/lib/systemd/system).

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)

set(ZUNTA_SYSTEMD_UNIT_DIR lib/systemd/system CACHE PATH "systemd unit directory (relative: below the prefix)")
set(ZUNTA_SYSUSERS_DIR lib/sysusers.d CACHE PATH "sysusers.d directory (relative: below the prefix)")
set(ZUNTA_TMPFILES_DIR lib/tmpfiles.d CACHE PATH "tmpfiles.d directory (relative: below the prefix)")
set(ZUNTA_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/zunta-coord)
set(ZUNTA_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)

# Manual pages and the package changelog go out compressed, as Debian policy wants; -n keeps the
# name and time stamp out of the archive so that rebuilds give the same bytes.
set(ZUNTA_GZIPPED)
foreach(source man/zunta-coord.8 man/zunta.conf.5 debian/changelog)
  get_filename_component(name ${source} NAME)
  set(output ${CMAKE_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
    COMMAND sh -c "gzip -9n -c '${ZUNTA_PACKAGING_DIR}/${source}' > '${output}'"
    DEPENDS ${ZUNTA_PACKAGING_DIR}/${source}
    VERBATIM)
  list(APPEND ZUNTA_GZIPPED ${output})
endforeach()
add_custom_target(zunta-docs ALL DEPENDS ${ZUNTA_GZIPPED})

install(TARGETS zunta-coord RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The configuration and the unit depend on the prefix given when installing: install_files.cmake
# places them then.
install(CODE "set(ZUNTA_PACKAGING_DIR \"${ZUNTA_PACKAGING_DIR}\")
set(ZUNTA_STAGING_DIR \"${CMAKE_BINARY_DIR}/packaging\")
set(ZUNTA_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
set(ZUNTA_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
set(ZUNTA_SYSTEMD_UNIT_DIR \"${ZUNTA_SYSTEMD_UNIT_DIR}\")")
install(SCRIPT ${ZUNTA_PACKAGING_DIR}/install_files.cmake)
install(FILES ${ZUNTA_PACKAGING_DIR}/zunta.sysusers DESTINATION ${ZUNTA_SYSUSERS_DIR} RENAME zunta-coord.conf)
install(FILES ${ZUNTA_PACKAGING_DIR}/zunta.tmpfiles DESTINATION ${ZUNTA_TMPFILES_DIR} RENAME zunta-coord.conf)
install(DIRECTORY ${ZUNTA_PACKAGING_DIR}/www/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zunta/www)
install(FILES ${CMAKE_BINARY_DIR}/packaging/zunta-coord.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_BINARY_DIR}/packaging/zunta.conf.5.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES ${ZUNTA_PACKAGING_DIR}/copyright DESTINATION ${ZUNTA_DOC_DIR})
install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.gz DESTINATION ${ZUNTA_DOC_DIR}
        RENAME changelog.Debian.gz)

# The Debian package. CPack installs with the prefix /usr into a staging directory; its archives
# take their file times from SOURCE_DATE_EPOCH when it is set (scripts/package.sh sets it).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zunta-coord)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR zunta)
set(CPACK_PACKAGE_CONTACT "zunta maintainers <maintainers@zunta.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "smart antenna coordinator for Wi-Fi mesh roots")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "zunta-coord runs on the root router of a Wi-Fi mesh whose nodes carry
switchable antennas with four patterns each. About once a second it finds
the mesh nodes by a UDP broadcast, asks each node's agent for its mesh
neighbours, and trains every pair of neighbouring nodes on all sixteen
combinations of their patterns. It then tells each node the transmit
pattern per neighbour and the receive pattern that gave the best bitrates,
retrains on a schedule or when the mesh changes, and publishes its state
in /tmp/zunta-sa.log.
.
The service runs as the unprivileged user zunta in a read-only sandbox.")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The daemon needs only the C library (libstdc++ is not linked in, see the top-level file); the
# newest symbol version it uses on either architecture is from glibc 2.34. Stated rather than
# computed: dpkg-shlibdeps cannot look into a cross build's libraries.
# The postinst makes the service user with systemd-sysusers, or with adduser where there is none.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${ZUNTA_PACKAGING_DIR}/debian/conffiles ${ZUNTA_PACKAGING_DIR}/debian/postinst
    ${ZUNTA_PACKAGING_DIR}/debian/prerm ${ZUNTA_PACKAGING_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
if(CMAKE_CROSSCOMPILING)
  # CPack would ask dpkg for this machine's architecture.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  endif()
endif()
include(CPack)

if(ZUNTA_TESTS_ENABLED)
  add_test(NAME packaging_lint COMMAND sh ${ZUNTA_PACKAGING_DIR}/lint.sh)
  # The daemon runs under the emulator in a cross build.
  add_test(NAME packaging_unit COMMAND sh ${ZUNTA_PACKAGING_DIR}/unit-check.sh $<TARGET_FILE:zunta-coord>
                                       ${CMAKE_CROSSCOMPILING_EMULATOR})
  add_test(NAME packaging_openwrt_init COMMAND sh ${ZUNTA_PACKAGING_DIR}/openwrt/init-check.sh)
endif()
