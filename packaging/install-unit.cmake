# Run by `cmake --install`: installs the systemd unit with ExecStart naming
# the daemon where this install puts it, so that any --prefix (the default
# /usr/local too) gets a unit that starts the right binary. DESTDIR is
# honoured. Set by the caller: ORVO_UNIT_SOURCE, ORVO_UNIT_DIR, ORVO_SBINDIR.
foreach(dir ORVO_UNIT_DIR ORVO_SBINDIR)
  if(IS_ABSOLUTE "${${dir}}")
    set(${dir}_FULL "${${dir}}")
  else()
    set(${dir}_FULL "${CMAKE_INSTALL_PREFIX}/${${dir}}")
  endif()
endforeach()
file(READ "${ORVO_UNIT_SOURCE}" unit)
string(REPLACE "ExecStart=/usr/sbin/orvoindexd" "ExecStart=${ORVO_SBINDIR_FULL}/orvoindexd" unit "${unit}")
get_filename_component(name "${ORVO_UNIT_SOURCE}" NAME)
set(target "$ENV{DESTDIR}${ORVO_UNIT_DIR_FULL}/${name}")
message(STATUS "Installing: ${target}")
file(WRITE "${target}" "${unit}")
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${ORVO_UNIT_DIR_FULL}/${name}")
