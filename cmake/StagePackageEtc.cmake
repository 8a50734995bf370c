# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) once it has staged the install tree
# of the Debian package: adds the package's files below /etc, which lie
# outside the install root. They are no install() rules on purpose: every
# install of the build tree, whatever its prefix (the out-of-tree plug-in
# test installs into the build tree), would then write the machine's /etc.
if(NOT CPACK_TEMPORARY_DIRECTORY OR NOT IS_DIRECTORY "${CPACK_TEMPORARY_DIRECTORY}")
  message(FATAL_ERROR "StagePackageEtc.cmake runs only inside cpack")
endif()

# The apt hook that refreshes the system baseline after package changes; a
# conffile (packaging/debian/conffiles), so an administrator's edit survives
# upgrades and purge removes it.
file(COPY "${CPACK_KX_APT_HOOK}"
     DESTINATION "${CPACK_TEMPORARY_DIRECTORY}/etc/apt/apt.conf.d"
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
