# zelmedia_exports(TARGET MAP SYMBOLS): links a shared library with a version script and fails the
# build when its exported symbols differ from the checked-in list.
function(zelmedia_exports TARGET MAP SYMBOLS)
  target_link_options(${TARGET} PRIVATE -Wl,--version-script=${MAP})
  set_property(TARGET ${TARGET} APPEND PROPERTY LINK_DEPENDS ${MAP} ${SYMBOLS})
  if(NOT ZELMEDIA_SANITIZE AND NOT ZELMEDIA_COVERAGE)
    add_custom_command(TARGET ${TARGET} POST_BUILD
      COMMAND ${CMAKE_SOURCE_DIR}/cmake/check-exports $<TARGET_FILE:${TARGET}> ${SYMBOLS}
      VERBATIM)
  endif()
endfunction()
