# Command, driver and documents, as far as they are built: what Packages.cmake installs of a native build only.
set(SHARE ${CMAKE_INSTALL_DATAROOTDIR})

# Installs what a part of the tree may not have.
function(install_if_there FILE)
  if(EXISTS ${FILE})
    install(FILES ${FILE} ${ARGN})
  endif()
endfunction()

# install_manual(NAME SECTION COMPONENT): the man page docs/man/NAME.SECTION.
macro(install_manual NAME SECTION COMPONENT)
  if(EXISTS ${PROJECT_SOURCE_DIR}/docs/man/${NAME}.${SECTION})
    gzipped(${PROJECT_SOURCE_DIR}/docs/man/${NAME}.${SECTION} ${NAME}.${SECTION}.gz)
    install(FILES ${STAGE}/${NAME}.${SECTION}.gz DESTINATION ${SHARE}/man/man${SECTION} COMPONENT ${COMPONENT})
  endif()
endmacro()

if(zelmedia-tools IN_LIST COMPONENTS)
  install(TARGETS zelmedia RUNTIME COMPONENT zelmedia-tools)
  install_manual(zelmedia 1 zelmedia-tools)
  set(COMPLETIONS ${PACKAGING}/completions)
  install_if_there(${COMPLETIONS}/zelmedia.bash RENAME zelmedia
    DESTINATION ${SHARE}/bash-completion/completions COMPONENT zelmedia-tools)
  install_if_there(${COMPLETIONS}/zelmedia.zsh RENAME _zelmedia
    DESTINATION ${SHARE}/zsh/vendor-completions COMPONENT zelmedia-tools)
  install_if_there(${COMPLETIONS}/zelmedia.fish
    DESTINATION ${SHARE}/fish/vendor_completions.d COMPONENT zelmedia-tools)
  install_if_there(${PROJECT_SOURCE_DIR}/third_party/echarts/NOTICE
    DESTINATION ${SHARE}/doc/zelmedia-tools COMPONENT zelmedia-tools)
endif()

if(zelmedia-driver IN_LIST COMPONENTS)
  install(TARGETS zelmedia-driver RUNTIME COMPONENT zelmedia-driver)
  install_manual(zelmedia-driver 8 zelmedia-driver)
  install(FILES ${PACKAGING}/systemd/zelmedia-driver.service
    DESTINATION lib/systemd/system COMPONENT zelmedia-driver)
  install(FILES ${PACKAGING}/sysusers.d/zelmedia-driver.conf DESTINATION lib/sysusers.d COMPONENT zelmedia-driver)
  install(FILES ${PACKAGING}/tmpfiles.d/zelmedia-driver.conf DESTINATION lib/tmpfiles.d COMPONENT zelmedia-driver)
  # Outside of the prefix: in the package only.
  foreach(folder logrotate.d default)
    install(FILES ${PACKAGING}/${folder}/zelmedia-driver
      DESTINATION /etc/${folder} COMPONENT zelmedia-driver EXCLUDE_FROM_ALL)
  endforeach()
endif()

# Pages, examples and the sounds that they play, in the folders that the pages' links expect.
set(DOC ${SHARE}/doc/zelmedia-doc)
file(GLOB PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PAGES} DESTINATION ${DOC}/docs COMPONENT zelmedia-doc)
install(FILES README.md CONTRIBUTING.md SECURITY.md THIRD-PARTY.md DESTINATION ${DOC} COMPONENT zelmedia-doc)
install(DIRECTORY examples assets DESTINATION ${DOC} COMPONENT zelmedia-doc)
set(ZELMEDIA_SITE ${PROJECT_SOURCE_DIR}/build/site CACHE PATH "The built documentation site, packaged if it is there")
install(DIRECTORY ${ZELMEDIA_SITE}/ DESTINATION ${DOC}/html COMPONENT zelmedia-doc OPTIONAL)
