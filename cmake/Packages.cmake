# What is installed and where, and the Debian packages made of it: scripts/build-packages.
#
# Each component is a package. The 32-bit and cross builds have the libraries only: driver, tools and documents are those
# of the native one, and of a build without driver or tools there is no package of them.
if(ZELMEDIA_SANITIZE OR ZELMEDIA_COVERAGE OR ZELMEDIA_FUZZ)
  return()
endif()
include(CMakePackageConfigHelpers)

set(PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(STAGE ${CMAKE_BINARY_DIR}/packaging) # files that are made here
set(COMPONENTS libzelmedia1 libzelmedia-dev)
if(NOT ZELMEDIA_M32 AND NOT CMAKE_CROSSCOMPILING)
  list(APPEND COMPONENTS zelmedia-doc)
  foreach(program zelmedia-tools=zelmedia zelmedia-driver=zelmedia-driver)
    string(REGEX MATCH "(.*)=(.*)" program ${program})
    if(TARGET ${CMAKE_MATCH_2})
      get_target_property(imported ${CMAKE_MATCH_2} IMPORTED) # is not of this build then
      if(NOT imported)
        list(APPEND COMPONENTS ${CMAKE_MATCH_1})
      endif()
    endif()
  endforeach()
endif()
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

if(TARGET ZelCallLib)
  install(TARGETS ZelCallLib EXPORT ZelCallTargets
    LIBRARY COMPONENT libzelcall1 NAMELINK_COMPONENT libzelcall-dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelmedia)
  install(FILES Library/ZelCallServices.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelmedia COMPONENT libzelcall-dev)
  install(EXPORT ZelCallTargets NAMESPACE ZelMedia:: DESTINATION ${CONFIG_DIR} COMPONENT libzelcall-dev)
endif()

# It can be moved with its prefix, unless its folders were named as they are.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
  set(PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(PREPEND PC_PREFIX "\${pcfiledir}/")
  set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/zelmedia.pc.in ${STAGE}/zelmedia.pc @ONLY)
install(FILES ${STAGE}/zelmedia.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libzelmedia-dev)
if(TARGET ZelCallLib)
  configure_file(cmake/zelcall.pc.in ${STAGE}/zelcall.pc @ONLY)
  install(FILES ${STAGE}/zelcall.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libzelcall-dev)
endif()

if(NOT ZELMEDIA_M32 AND NOT CMAKE_CROSSCOMPILING)
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
  COMMAND ${PACKAGING}/make-symbols ${ZELMEDIA_ARCHITECTURE} ${PROJECT_VERSION} ${STAGE}/symbols
          $<TARGET_FILE:ZelMediaLib> $<TARGET_FILE:OrvLogLib>
  DEPENDS ZelMediaLib OrvLogLib ${PACKAGING}/make-symbols ${PACKAGING}/libzelmedia1.symbols VERBATIM)
add_custom_target(package-symbols DEPENDS ${STAGE}/symbols)

include(${CMAKE_CURRENT_LIST_DIR}/DebianPackages.cmake)
include(CPack)
