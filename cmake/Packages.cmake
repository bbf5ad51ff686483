# What is installed and where, and the Debian packages made of it: scripts/build-packages.
#
# Each component is a package. The 32-bit build has the libraries only: driver, tools and documents are those
# of the 64-bit one.
if(ZELMEDIA_SANITIZE OR ZELMEDIA_COVERAGE OR ZELMEDIA_FUZZ)
  return()
endif()
include(CMakePackageConfigHelpers)

set(PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(STAGE ${CMAKE_BINARY_DIR}/packaging) # files that are made here
if(ZELMEDIA_M32)
  set(DEBIAN_ARCHITECTURE i386)
  set(MULTIARCH i386-linux-gnu)
  set(COMPONENTS libzelmedia1 libzelmedia-dev)
else()
  set(DEBIAN_ARCHITECTURE amd64)
  set(MULTIARCH x86_64-linux-gnu)
  set(COMPONENTS libzelmedia1 libzelmedia-dev zelmedia-tools zelmedia-doc)
  if(NOT ZELMEDIA_DRIVER) # it is not of this build otherwise
    list(APPEND COMPONENTS zelmedia-driver)
  endif()
endif()
# Both widths stand side by side, with any prefix.
set(CMAKE_INSTALL_LIBDIR lib/${MULTIARCH})
include(GNUInstallDirs)

# gzipped(FILE NAME): makes STAGE/NAME of FILE, the same bytes at each build.
set(STAGED)
macro(gzipped FILE NAME)
  add_custom_command(OUTPUT ${STAGE}/${NAME} COMMAND gzip -9nc ${FILE} > ${STAGE}/${NAME} DEPENDS ${FILE} VERBATIM)
  list(APPEND STAGED ${STAGE}/${NAME})
endmacro()

# Libraries, and what an application is built with.
install(TARGETS ZelMediaLib OrvLogLib EXPORT ZelMediaTargets
  LIBRARY COMPONENT libzelmedia1 NAMELINK_COMPONENT libzelmedia-dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelmedia)
install(FILES Library/ZelMediaServices.h platform/OrvException.h platform/OrvLogLib.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelmedia COMPONENT libzelmedia-dev)

set(CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZelMedia)
configure_package_config_file(cmake/ZelMediaConfig.cmake.in ${STAGE}/ZelMediaConfig.cmake
  INSTALL_DESTINATION ${CONFIG_DIR} NO_SET_AND_CHECK_MACRO)
# A program of the other width passes over this one. The compiler was looked at without -m32.
set(width_of_the_compiler ${CMAKE_SIZEOF_VOID_P})
if(ZELMEDIA_M32)
  set(CMAKE_SIZEOF_VOID_P 4)
endif()
write_basic_package_version_file(${STAGE}/ZelMediaConfigVersion.cmake COMPATIBILITY SameMajorVersion)
set(CMAKE_SIZEOF_VOID_P ${width_of_the_compiler})
install(EXPORT ZelMediaTargets NAMESPACE ZelMedia:: DESTINATION ${CONFIG_DIR} COMPONENT libzelmedia-dev)
install(FILES ${STAGE}/ZelMediaConfig.cmake ${STAGE}/ZelMediaConfigVersion.cmake
  DESTINATION ${CONFIG_DIR} COMPONENT libzelmedia-dev)

file(RELATIVE_PATH PREFIX_FROM_PKGCONFIG /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zelmedia.pc.in ${STAGE}/zelmedia.pc @ONLY)
install(FILES ${STAGE}/zelmedia.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libzelmedia-dev)

if(NOT ZELMEDIA_M32)
  include(${CMAKE_CURRENT_LIST_DIR}/InstallPrograms.cmake)
endif()

# Every package has two change logs and a copyright file.
gzipped(${PACKAGING}/changelog changelog.Debian.gz)
gzipped(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog.gz)
foreach(component IN LISTS COMPONENTS)
  install(FILES ${STAGE}/changelog.Debian.gz ${STAGE}/changelog.gz ${PACKAGING}/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${component} COMPONENT ${component})
  if(EXISTS ${PACKAGING}/${component}.lintian-overrides)
    install(FILES ${PACKAGING}/${component}.lintian-overrides RENAME ${component}
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
  endif()
endforeach()
add_custom_target(package-files ALL DEPENDS ${STAGED})

# Fails when the libraries do not have the symbols that the list promises.
add_custom_command(OUTPUT ${STAGE}/symbols
  COMMAND ${PACKAGING}/make-symbols ${DEBIAN_ARCHITECTURE} ${PROJECT_VERSION} ${STAGE}/symbols
          $<TARGET_FILE:ZelMediaLib> $<TARGET_FILE:OrvLogLib>
  DEPENDS ZelMediaLib OrvLogLib ${PACKAGING}/make-symbols ${PACKAGING}/libzelmedia1.symbols VERBATIM)
add_custom_target(package-symbols DEPENDS ${STAGE}/symbols)

include(${CMAKE_CURRENT_LIST_DIR}/DebianPackages.cmake)
include(CPack)
