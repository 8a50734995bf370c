# The Debian package korvex-aec (docs/package.md).
#
# Programs and libraries: everything lands below /opt/korvex, and every
# installed binary finds libkxhost.so there. The one file elsewhere is the
# apt hook below /etc/apt, a conffile. The configuration under
# /opt/korvex/etc/aec is never a package file: an upgrade would overwrite the
# rules, the whitelist and the integrity list an administrator has. The
# package's postinst creates what is missing instead (packaging/debian/).

set(KX_INSTALL_ROOT /opt/korvex)

# Installed into ${KX_INSTALL_ROOT}; the build tree keeps its own RPATH.
set_target_properties(aec kxhost kxhost_program kxserv kxctl PROPERTIES
  INSTALL_RPATH ${KX_INSTALL_ROOT}/lib)
install(TARGETS kxhost EXPORT KorvexHostTargets LIBRARY DESTINATION lib)
install(TARGETS aec LIBRARY DESTINATION lib)
install(TARGETS kxhost_program kxctl RUNTIME DESTINATION bin)
install(TARGETS kxserv RUNTIME DESTINATION sbin)

# The service's unit stays below the install root like everything else;
# postinst links it into systemd where systemd runs the machine.
install(FILES ${PROJECT_SOURCE_DIR}/service/kxserv/kxserv.service
        DESTINATION lib/systemd/system)

# The apt hook's command, run after every dpkg run of apt; the hook itself
# (/etc/apt/apt.conf.d/80korvex-aec-baseline) is added by cpack only, see
# cmake/StagePackageEtc.cmake.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/apt/kxaec-baseline-refresh
        DESTINATION libexec)

# Every manual page kept beside a program's code (section 8).
file(GLOB_RECURSE KX_MAN_PAGES CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/host/*.8 ${PROJECT_SOURCE_DIR}/tools/*.8
     ${PROJECT_SOURCE_DIR}/service/*.8 ${PROJECT_SOURCE_DIR}/engine/*.8
     ${PROJECT_SOURCE_DIR}/console/*.8)
install(FILES ${KX_MAN_PAGES} DESTINATION share/man/man8)

# The host others build plug-ins against: the contract headers and a CMake
# package, so that find_package(KorvexHost) and KorvexHost::kxhost work from
# the install prefix (examples/sample_plugin). The host's internals
# (host/lib/*.h) are not part of it.
include(CMakePackageConfigHelpers)
set(KX_CMAKE_PACKAGE_DIR lib/cmake/KorvexHost)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/host DESTINATION include
        FILES_MATCHING PATTERN "*.h")
install(EXPORT KorvexHostTargets NAMESPACE KorvexHost::
        DESTINATION ${KX_CMAKE_PACKAGE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KorvexHostConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KorvexHostConfig.cmake
  INSTALL_DESTINATION ${KX_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KorvexHostConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KorvexHostConfig.cmake
              ${PROJECT_BINARY_DIR}/KorvexHostConfigVersion.cmake
        DESTINATION ${KX_CMAKE_PACKAGE_DIR})

# The message catalogue: the template of the plug-in's texts, in the
# directory kxhost binds the "korvex-aec" domain to. No translation exists
# yet, so there is no .mo to ship.
if(TARGET pot)
  install(FILES ${PROJECT_BINARY_DIR}/po/korvex-aec.pot DESTINATION share/locale)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvex-aec)
set(CPACK_PACKAGE_VENDOR "Korvex")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${KX_INSTALL_ROOT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Korvex application execution control plug-in with its stand-alone host")
set(CPACK_PACKAGE_DESCRIPTION
    "The application execution control plug-in (libaec.so) of the Korvex\n\
host-protection agent: named execution-control rules, a whitelist of users\n\
and groups, resource exceptions, soft and hard mode and the audit switches.\n\
Ships the stand-alone host (libkxhost.so, kxhost) that loads and drives it,\n\
and the agent tools it runs: the rule-control tool kxaecctl and the\n\
integrity tool kxaide, the service kxserv with its client kxctl, and their\n\
manual pages, and an apt hook that refreshes the system baseline after\n\
package changes. Everything but that hook is installed below /opt/korvex.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Korvex packaging team <packaging@korvex.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The debug information stays in the build tree.
set(CPACK_STRIP_FILES ON)

execute_process(COMMAND dpkg --print-architecture
                OUTPUT_VARIABLE kx_deb_architecture
                OUTPUT_STRIP_TRAILING_WHITESPACE
                RESULT_VARIABLE kx_dpkg_result ERROR_QUIET)
if(kx_dpkg_result EQUAL 0 AND kx_deb_architecture)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${kx_deb_architecture})
endif()

# Dependencies: read off the binaries where dpkg-shlibdeps (dpkg-dev) is
# there, so that they follow what is really linked; otherwise the Debian 12
# packages of the libraries the binaries link today (readelf -d: NEEDED).
find_program(KX_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KX_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # libkxhost.so is the package's own: dpkg-shlibdeps looks for it in the
  # staging tree, not among the machine's packages.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS .${KX_INSTALL_ROOT}/lib)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
      "libc6, libstdc++6, libgcc-s1, libboost-filesystem1.74.0, libboost-log1.74.0, \
libsqlite3-0, libldap-2.5-0, libssl3")
endif()

set(KX_PACKAGE_SCRIPTS_DIR ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${KX_PACKAGE_SCRIPTS_DIR}/postinst
    ${KX_PACKAGE_SCRIPTS_DIR}/prerm
    ${KX_PACKAGE_SCRIPTS_DIR}/postrm
    ${KX_PACKAGE_SCRIPTS_DIR}/conffiles)
set(CPACK_KX_APT_HOOK ${PROJECT_SOURCE_DIR}/packaging/apt/80korvex-aec-baseline)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/StagePackageEtc.cmake)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
