# Names, dependencies and control files of the Debian packages, for CPack. Part of Packages.cmake.
#
# The builder of packages that are given away is their maintainer: DEBFULLNAME and DEBEMAIL say who that is.
set(DEB_NAME "The ZelMedia authors")
set(DEB_EMAIL "zelmedia@example.org")
if(DEFINED ENV{DEBEMAIL})
  set(DEB_EMAIL $ENV{DEBEMAIL})
  if(DEFINED ENV{DEBFULLNAME})
    set(DEB_NAME $ENV{DEBFULLNAME})
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelmedia)
set(CPACK_PACKAGE_CONTACT "${DEB_NAME} <${DEB_EMAIL}>")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${COMPONENTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZELMEDIA_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(THIS "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# debian_package(NAME SECTION SUMMARY DESCRIPTION [KEY VALUE]...), with the keys of CPACK_DEBIAN_<COMPONENT>_*.
macro(debian_package NAME SECTION SUMMARY DESCRIPTION)
  string(TOUPPER ${NAME} component)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${NAME})
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION ${SECTION})
  set(CPACK_COMPONENT_${component}_DESCRIPTION "${SUMMARY}\n${COMMON}${DESCRIPTION}")
  set(arguments ${ARGN})
  while(arguments)
    list(POP_FRONT arguments key value)
    string(REPLACE " + " ";" CPACK_DEBIAN_${component}_${key} "${value}") # a list of files
  endwhile()
endmacro()

set(COMMON "ZelMedia plays prompts on the channels of calls and records what callers say.
A media driver owns channels and audio; applications talk to it through
libZelMediaLib.\n\n")
# This CPack has no variable for it.
set(SIDE_BY_SIDE "\nMulti-Arch: same")

debian_package(libzelmedia1 "libs${SIDE_BY_SIDE}" "telephony prompts and recordings, shared libraries"
  "This package has libZelMediaLib and its log library libOrvLogLib."
  PACKAGE_CONTROL_EXTRA "${STAGE}/symbols + ${PACKAGING}/libzelmedia1/triggers + ${PACKAGING}/libzelmedia1/shlibs")
# Written out, and compared with what the libraries use by tests/packages/check-packages: the C library of the 32-bit
# build is in a package of the 64-bit system, which dpkg-shlibdeps would name; and where it looks, CPack adds scripts
# that run ldconfig, for which there is a trigger.
set(CPACK_DEBIAN_LIBZELMEDIA1_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")

debian_package(libzelmedia-dev "libdevel${SIDE_BY_SIDE}" "telephony prompts and recordings, development files"
  "This package has the headers, and what pkg-config and CMake need."
  PACKAGE_DEPENDS "libzelmedia1 ${THIS}"
  PACKAGE_SUGGESTS zelmedia-doc)

debian_package(zelmedia-tools comm "telephony prompts and recordings, the command zelmedia"
  "This package has the command zelmedia, which plays, records, looks after a
machine and reads the library's log."
  PACKAGE_DEPENDS "libzelmedia1 ${THIS}"
  PACKAGE_SUGGESTS zelmedia-driver
  PACKAGE_SHLIBDEPS ON)

debian_package(zelmedia-driver comm "telephony prompts and recordings, reference media driver"
  "This package has the reference driver, whose channels are audio files or RTP
streams, and runs it as a service."
  PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers"
  PACKAGE_SUGGESTS "logrotate, zelmedia-tools"
  PACKAGE_SHLIBDEPS ON
  PACKAGE_CONTROL_EXTRA "${PACKAGING}/zelmedia-driver/conffiles + ${PACKAGING}/zelmedia-driver/postinst + \
${PACKAGING}/zelmedia-driver/prerm + ${PACKAGING}/zelmedia-driver/postrm")

debian_package(zelmedia-doc doc "telephony prompts and recordings, documentation"
  "This package has the guides, the examples, and sounds to try them with."
  PACKAGE_ARCHITECTURE all)

# The libraries stand beside the programs that are looked at.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/Library ${CMAKE_BINARY_DIR}/platform)
