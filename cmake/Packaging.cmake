# The Debian package, made by CPack's DEB generator from the install rules
# (scripts/package.sh; README "Install"). CPack packs exactly what
# `cmake --install` puts in a prefix, so the package and the tested install
# tree cannot differ, and it reuses the build tree's binaries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quendral-firmware-updater)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR QUENDRAL)
set(CPACK_PACKAGE_CONTACT "${QUENDRAL_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Debian ships programs without their debugging symbols.
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 1)

# Resolved at start and then read-only, as Debian links its programs.
foreach(program quendral-cli quendral-firmware-updater)
  if(TARGET ${program})
    set_property(TARGET ${program} APPEND PROPERTY LINK_OPTIONS "LINKER:-z,relro,-z,now")
  endif()
endforeach()

# quendral-firmware-updater_<version>_<architecture>.deb
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${QUENDRAL_HOMEPAGE_URL}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "update and configure QUENDRAL Controllers")
set(CPACK_PACKAGE_DESCRIPTION
  "Keeps QUENDRAL Controllers attached over USB up to date and configured: it
identifies the Controller on a serial port, fetches the firmware the update
server builds for that very unit, verifies it and installs it with avrdude or
bossac. It also edits the Controller's network settings, switches its web
configuration and offers a serial monitor.

The package holds the desktop window, the command-line program quendral-cli,
and a udev rule that gives the user at the computer access to the Controllers
and their boot loaders and keeps ModemManager away from them.")

# Libraries as dpkg-shlibdeps finds them in the programs, plus the two
# flashing tools, which are run, not linked.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "avrdude, bossa-cli")

# udev reads the new rule on install and forgets it on removal.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/resources/debian/postinst ${CMAKE_SOURCE_DIR}/resources/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
