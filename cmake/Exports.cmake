# zelmedia_exports(TARGET NAME): links a shared library with the version script NAME.map and fails
# the build when its exported symbols differ from the checked-in list of this architecture, NAME.amd64.symbols for
# instance: a va_list argument is spelled differently. The lists are those of gcc; what has none is not compared.
function(zelmedia_exports TARGET NAME)
  set(MAP ${NAME}.map)
  set(SYMBOLS ${NAME}.${ZELMEDIA_ARCHITECTURE}.symbols)
  target_link_options(${TARGET} PRIVATE -Wl,--version-script=${MAP})
  set_property(TARGET ${TARGET} APPEND PROPERTY LINK_DEPENDS ${MAP})
  if(NOT ZELMEDIA_SANITIZE AND NOT ZELMEDIA_COVERAGE)
    target_link_options(${TARGET} PRIVATE -Wl,--no-undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND EXISTS ${SYMBOLS})
      set_property(TARGET ${TARGET} APPEND PROPERTY LINK_DEPENDS ${SYMBOLS})
      add_custom_command(TARGET ${TARGET} POST_BUILD
        COMMAND ${PROJECT_SOURCE_DIR}/cmake/check-exports $<TARGET_FILE:${TARGET}> ${SYMBOLS}
        VERBATIM)
    endif()
  endif()
endfunction()
