# Installation and the Debian package.
#
# `cmake --install build --prefix P` installs the programs into P/bin, the man pages and the bash
# completion below P/share, and a clean home into P/${VYN_INSTALL_HOME} (components programs and
# home). `cpack -G DEB` in the build directory makes a package of the programs and of the
# component deb, which `cmake --install` leaves out: the home at ${VYN_DEB_HOME}, the login
# shells' settings, the daemon's service unit and the package's documents.

# The version of the package; packaging/changelog has an entry for it.
set(VYN_VERSION 1.0.0)

set(VYN_PROGRAMS vyn_profile vyn_vrg vyn_evmd)
# Programs that are not part of every build yet ship when they are there.
foreach(t vyn_evmshow vyn_evmwatch vyn_cluster)
  if(TARGET ${t})
    list(APPEND VYN_PROGRAMS ${t})
  endif()
endforeach()
install(TARGETS ${VYN_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)

# Man pages are installed compressed, as man reads them and as Debian wants them. Each program's
# page has the program's name and its section as suffix.
set(VYN_MAN_OUT)
foreach(prog ${VYN_PROGRAMS})
  file(GLOB page ${CMAKE_SOURCE_DIR}/man/${prog}.[1-8])
  if(NOT page)
    message(FATAL_ERROR "the program ${prog} has no man page in man/")
  endif()
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE "^.*\\.([1-8])$" "\\1" section ${name})
  set(out ${CMAKE_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND gzip -9 -n -c ${page} > ${out}
    DEPENDS ${page}
    COMMENT "Man page ${name}")
  list(APPEND VYN_MAN_OUT ${out})
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT programs)
endforeach()
add_custom_target(man ALL DEPENDS ${VYN_MAN_OUT})

install(FILES ${CMAKE_SOURCE_DIR}/completion/vyn_profile
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT programs)

# What only the package holds. Its paths are absolute: the package's home and settings have one
# place on every machine.
set(PKG ${CMAKE_SOURCE_DIR}/packaging)
set(VYN_DEB_GEN ${CMAKE_BINARY_DIR}/packaging)
configure_file(${PKG}/vyn.sh.in ${VYN_DEB_GEN}/vyn.sh @ONLY)
configure_file(${PKG}/vyn_evmd.service.in ${VYN_DEB_GEN}/vyn_evmd.service @ONLY)
foreach(script postinst prerm postrm)
  configure_file(${PKG}/${script}.in ${VYN_DEB_GEN}/control/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
file(WRITE ${VYN_DEB_GEN}/control/conffiles "/etc/profile.d/vyn.sh\n")
add_custom_command(OUTPUT ${VYN_DEB_GEN}/changelog.gz
  COMMAND gzip -9 -n -c ${PKG}/changelog > ${VYN_DEB_GEN}/changelog.gz
  DEPENDS ${PKG}/changelog)
add_custom_target(package-files ALL DEPENDS ${VYN_DEB_GEN}/changelog.gz)

install(FILES ${VYN_DEB_GEN}/vyn.sh DESTINATION /etc/profile.d COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${VYN_DEB_GEN}/vyn_evmd.service DESTINATION /lib/systemd/system COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${PKG}/copyright ${VYN_DEB_GEN}/changelog.gz DESTINATION /usr/share/doc/vyn
  COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${PKG}/lintian-overrides DESTINATION /usr/share/lintian/overrides RENAME vyn
  COMPONENT deb EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vyn)
set(CPACK_PACKAGE_VERSION ${VYN_VERSION})
set(CPACK_PACKAGE_CONTACT "Vyn maintainers <maintainers@vyn.example>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The maintainer scripts keep the service's state with the init system's helpers.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "resource profiles and event daemon for cluster administrators")
# The long description; CPack puts the summary in front of it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "vyn_profile creates, prints, validates, updates and deletes the resource
profiles of a cluster's resource manager, from type definitions read at run
time. vyn_evmd is the cluster's event daemon, which records every deletion
and update as an event; vyn_vrg reads and changes the settings registry.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${VYN_DEB_GEN}/control/postinst ${VYN_DEB_GEN}/control/prerm ${VYN_DEB_GEN}/control/postrm
  ${VYN_DEB_GEN}/control/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};vyn;programs;/;${CMAKE_BINARY_DIR};vyn;deb;/")
include(CPack)
