# Run by `cmake --install` (and CPack) with the prefix given then: places the configuration and
# the systemd unit, whose directories and contents depend on that prefix.

# A directory relative to the prefix, or an absolute one as it stands.
function(zunta_install_dir out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

# The configuration of the /usr prefix lives in /etc, the only place the daemon reads it from.
if(NOT IS_ABSOLUTE "${ZUNTA_SYSCONFDIR}" AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZUNTA_SYSCONFDIR /etc)
endif()
zunta_install_dir(etc_dir "${ZUNTA_SYSCONFDIR}")
file(INSTALL DESTINATION "${etc_dir}" TYPE FILE FILES "${ZUNTA_PACKAGING_DIR}/zunta.conf")

# The unit starts the daemon where this installation puts it.
zunta_install_dir(sbin_dir "${ZUNTA_SBINDIR}")
zunta_install_dir(unit_dir "${ZUNTA_SYSTEMD_UNIT_DIR}")
file(READ "${ZUNTA_PACKAGING_DIR}/zunta-coord.service" unit)
string(REPLACE "=/usr/sbin/zunta-coord " "=${sbin_dir}/zunta-coord " unit "${unit}")
file(WRITE "${ZUNTA_STAGING_DIR}/zunta-coord.service" "${unit}")
file(INSTALL DESTINATION "${unit_dir}" TYPE FILE FILES "${ZUNTA_STAGING_DIR}/zunta-coord.service")
