# Install rules of the Debian packages and their CPack set-up (scripts/package).
#
#   pvocd        the daemon, pvoctl, the unit, tmpfiles.d entry, settings
#                examples as conffiles, man pages, bash completion
#   pvocd-tools  the schedule-server and logger-daemon simulators, for
#                commissioning a device against a laptop
#
# scripts/package configures with CMAKE_INSTALL_PREFIX=/usr,
# PVOCD_SYSTEMD_UNIT_DIR=/lib/systemd/system and PVOCD_DEB_DEPENDS_* computed
# by dpkg-shlibdeps, PVOCD_CONFFILE_DIR=/etc/pvocd, then runs cpack.

set(PVOCD_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Directory of the systemd unit")
set(PVOCD_CONFFILE_DIR "" CACHE STRING
    "Absolute directory of the settings examples as conffiles (default: share/pvocd/examples)")
set(PVOCD_DEB_DEPENDS_PVOCD "" CACHE STRING "Depends of the pvocd package")
set(PVOCD_DEB_DEPENDS_TOOLS "" CACHE STRING "Depends of the pvocd-tools package")
set(PVOCD_DEB_ARCHITECTURE "" CACHE STRING "Debian architecture of the packages (default: dpkg's)")

set(PVOCD_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
set(PVOCD_GZ_DIR ${CMAKE_BINARY_DIR}/packaging-gz)

# Man pages and the Debian changelog go in gzip -9n (no name, no time stamp),
# as Debian wants them.
set(PVOCD_GZ_FILES)
function(pvocd_gzip source name)
  add_custom_command(OUTPUT ${PVOCD_GZ_DIR}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PVOCD_GZ_DIR}
    COMMAND gzip -9n -c ${source} > ${PVOCD_GZ_DIR}/${name}.gz
    DEPENDS ${source}
    VERBATIM)
  set(PVOCD_GZ_FILES ${PVOCD_GZ_FILES} ${PVOCD_GZ_DIR}/${name}.gz PARENT_SCOPE)
endfunction()
# The man pages name the package's version (@PROJECT_VERSION@).
foreach(page pvocd.8 pvoctl.1 schedule-server-sim.1 logger-daemon-sim.1)
  configure_file(${PVOCD_PACKAGING_DIR}/man/${page} ${CMAKE_BINARY_DIR}/man/${page} @ONLY)
  pvocd_gzip(${CMAKE_BINARY_DIR}/man/${page} ${page})
endforeach()
pvocd_gzip(${PVOCD_PACKAGING_DIR}/debian/changelog changelog.Debian)
add_custom_target(pvocd_docs ALL DEPENDS ${PVOCD_GZ_FILES})

# The daemon's package.
install(TARGETS pvocd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT pvocd)
install(TARGETS pvoctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT pvocd)
set(PVOCD_SBIN ${CMAKE_INSTALL_FULL_SBINDIR})
set(PVOCD_BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
configure_file(${PVOCD_PACKAGING_DIR}/pvocd.service ${CMAKE_BINARY_DIR}/pvocd.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pvocd.service DESTINATION ${PVOCD_SYSTEMD_UNIT_DIR} COMPONENT pvocd)
install(FILES ${PVOCD_PACKAGING_DIR}/tmpfiles/pvocd.conf
        DESTINATION lib/tmpfiles.d COMPONENT pvocd)
# In the package the settings examples are conffiles; its postinst copies
# them to the settings directory the daemon reads, only where no file is
# there yet.
if(PVOCD_CONFFILE_DIR)
  set(PVOCD_SETTINGS_EXAMPLES_DIR ${PVOCD_CONFFILE_DIR}/SettingsXML)
else()
  set(PVOCD_SETTINGS_EXAMPLES_DIR ${CMAKE_INSTALL_DATADIR}/pvocd/examples/SettingsXML)
endif()
install(FILES examples/LoggerSetting.xml examples/SystemSetting.xml
        DESTINATION ${PVOCD_SETTINGS_EXAMPLES_DIR} COMPONENT pvocd)
install(FILES examples/DeviceXML/pv_inverter.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/pvocd/examples/DeviceXML COMPONENT pvocd)
install(FILES ${PVOCD_GZ_DIR}/pvocd.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT pvocd)
install(FILES ${PVOCD_GZ_DIR}/pvoctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT pvocd)
install(FILES ${PVOCD_PACKAGING_DIR}/bash-completion/pvoctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT pvocd)

# The tools' package.
install(TARGETS schedule-server-sim logger-daemon-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT tools)
install(FILES ${PVOCD_GZ_DIR}/schedule-server-sim.1.gz ${PVOCD_GZ_DIR}/logger-daemon-sim.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# Both packages carry the copyright, the changelog and their lintian
# overrides under their own name.
foreach(component pvocd tools)
  set(package pvocd)
  if(component STREQUAL "tools")
    set(package pvocd-tools)
  endif()
  install(FILES ${PVOCD_PACKAGING_DIR}/debian/copyright ${PVOCD_GZ_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  install(FILES ${PVOCD_PACKAGING_DIR}/lintian/${package}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
endforeach()

# CPack: one .deb per component, debug symbols in -dbgsym packages.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pvocd)
set(CPACK_PACKAGE_VENDOR "pvocd maintainers")
set(CPACK_PACKAGE_CONTACT "pvocd maintainers <maintainers@users.noreply.c-seed-cfc6ac8f.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# The Debian changelog's newest entry must name the package being built.
file(STRINGS ${PVOCD_PACKAGING_DIR}/debian/changelog PVOCD_CHANGELOG_HEAD LIMIT_COUNT 1)
string(REGEX MATCH "^pvocd \\(([^)]+)\\)" PVOCD_CHANGELOG_MATCH "${PVOCD_CHANGELOG_HEAD}")
set(PVOCD_DEB_VERSION ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
if(NOT CMAKE_MATCH_1 STREQUAL PVOCD_DEB_VERSION)
  message(FATAL_ERROR "packaging/debian/changelog names version \"${CMAKE_MATCH_1}\", "
                      "the project is ${PVOCD_DEB_VERSION}: add a changelog entry for it")
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL pvocd tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_PVOCD_PACKAGE_NAME pvocd)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME pvocd-tools)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")
set(CPACK_DEBIAN_PVOCD_PACKAGE_DEPENDS "${PVOCD_DEB_DEPENDS_PVOCD}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${PVOCD_DEB_DEPENDS_TOOLS}")
if(PVOCD_DEB_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${PVOCD_DEB_ARCHITECTURE})
endif()
set(CPACK_COMPONENT_PVOCD_DESCRIPTION
"output-control daemon of a PV data logger
pvocd fetches the output-control schedules of its power plant from the
grid operator's schedule server, keeps them in SQLite databases and tells
the logger's local clients, over a UNIX-domain socket, the target power
for the current and the next 30-minute slot. pvoctl asks it from the
command line.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"simulators for commissioning pvocd
schedule-server-sim answers as the schedule server does, over HTTP or
HTTPS, so that a device can be commissioned against a laptop;
logger-daemon-sim stands in for the logger daemon that pvocd notifies
of new schedule data.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS pvocd)
set(CPACK_DEBIAN_PVOCD_PACKAGE_CONTROL_EXTRA
    ${PVOCD_PACKAGING_DIR}/debian/conffiles
    ${PVOCD_PACKAGING_DIR}/debian/postinst
    ${PVOCD_PACKAGING_DIR}/debian/prerm
    ${PVOCD_PACKAGING_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
