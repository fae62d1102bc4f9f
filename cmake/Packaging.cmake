# Install rules and CPack, in every build:
#   cpack -G DEB  in a Linux build folder    kvtnetd_<version>_amd64.deb
#   cpack -G ZIP  in a Windows build folder  kvtnetd-<version>-win64.zip
# A further program is one kvt_install_program() line below, plus (Linux) its man page in
# packaging/man/<program>.<section> and, for a service, packaging/linux/<program>.service with
# optional <program>.sysusers and <program>.tmpfiles: the maintainer scripts handle every unit,
# user and data folder listed here.
include(GNUInstallDirs)

set(KVT_UNITS "")
set(KVT_SYSUSERS "")
set(KVT_TMPFILES "")

# kvt_install_program(TARGET SECTION [SERVICE]): SECTION 8 installs to sbin, 1 to bin.
function(kvt_install_program target section)
  if(WIN32)
    install(TARGETS ${target} RUNTIME DESTINATION .)
    return()
  endif()
  # Relocations resolved and made read-only at start (Debian's hardening, lintian's bindnow).
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
  if(section STREQUAL "8")
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  else()
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  # Man pages: the version filled in, compressed without a time stamp (reproducible).
  set(page ${target}.${section})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/man/${page} ${CMAKE_BINARY_DIR}/man/${page} @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/${page}.gz
                     COMMAND gzip -9nf -k ${page}
                     DEPENDS ${CMAKE_BINARY_DIR}/man/${page}
                     WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/man)
  add_custom_target(${target}_man ALL DEPENDS ${CMAKE_BINARY_DIR}/man/${page}.gz)
  install(FILES ${CMAKE_BINARY_DIR}/man/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  if("SERVICE" IN_LIST ARGN)
    set(linux ${PROJECT_SOURCE_DIR}/packaging/linux)
    install(FILES ${linux}/${target}.service DESTINATION lib/systemd/system)
    set(KVT_UNITS "${KVT_UNITS} ${target}.service" PARENT_SCOPE)
    if(EXISTS ${linux}/${target}.sysusers)
      install(FILES ${linux}/${target}.sysusers DESTINATION lib/sysusers.d RENAME ${target}.conf)
      set(KVT_SYSUSERS "${KVT_SYSUSERS} ${target}.conf" PARENT_SCOPE)
    endif()
    if(EXISTS ${linux}/${target}.tmpfiles)
      install(FILES ${linux}/${target}.tmpfiles DESTINATION lib/tmpfiles.d RENAME ${target}.conf)
      set(KVT_TMPFILES "${KVT_TMPFILES} ${target}.conf" PARENT_SCOPE)
    endif()
  endif()
endfunction()

kvt_install_program(kvtnetd 8 SERVICE)
kvt_install_program(kvtctl 1)
set(KVT_CONFFILES "")
if(TARGET kvtweb)  # the status page, where its libraries are at hand
  kvt_install_program(kvtweb 1 SERVICE)
  # The alert rules for Prometheus, and (Linux) the servers file the unit reads: the
  # operator's to edit, so a conffile that upgrades leave as it is.
  if(WIN32)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/prometheus/kvtweb-alerts.yml DESTINATION .)
  else()
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/prometheus/kvtweb-alerts.yml
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/kvtnetd)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/linux/kvtweb.servers DESTINATION /etc/kvtweb
            RENAME servers)
    set(KVT_CONFFILES "/etc/kvtweb/servers\n")
  endif()
endif()

set(CPACK_PACKAGE_NAME kvtnetd)
set(CPACK_PACKAGE_VENDOR "KVTnetd developers")
set(CPACK_PACKAGE_CONTACT "KVTnetd developers <kvtnetd@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "print workstation server for colour-managed print shops")
set(CPACK_STRIP_FILES ON)

if(WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/windows/INSTALL.txt DESTINATION .)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME "kvtnetd-${PROJECT_VERSION}-win64")
else()
  set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/kvtnetd)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/changelog ${CMAKE_BINARY_DIR}/debian/changelog
                 @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.gz
                     COMMAND gzip -9nf -k changelog
                     DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog
                     WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/debian)
  add_custom_target(kvt_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.gz)
  install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.gz ${PROJECT_SOURCE_DIR}/packaging/debian/copyright
          DESTINATION ${doc})
  foreach(script postinst prerm postrm)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/${script}
                   ${CMAKE_BINARY_DIR}/debian/${script} @ONLY)
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/${script})
  endforeach()
  if(KVT_CONFFILES)
    file(WRITE ${CMAKE_BINARY_DIR}/debian/conffiles "${KVT_CONFFILES}")
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/conffiles)
  endif()

  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # Depends from the programs' shared libraries (dpkg-shlibdeps): libc, libstdc++, libcups.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS cups-daemon)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  # CPack puts the summary above it as the synopsis.
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
      "KVTnetd runs on the workstation to which a print shop's printers are attached.
Client workstations connect on TCP port 51470 to list and cancel the CUPS
jobs, upload spool files and start the print-feeding program, and fetch gamut
files and configuration listings.

The service runs as its own user in a systemd sandbox that can write only to
/var/lib/kvtnetd and accepts clients from loopback and private networks only.
The package also holds kvtctl, the operator's command-line client, and
kvtweb (its own sandboxed service, kvtweb.service): the status page of the
servers listed in /etc/kvtweb/servers for the browser on the loopback
address, and their metrics for Prometheus, with alert rules.")
endif()

include(CPack)
