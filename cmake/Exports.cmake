# zelmedia_exports(TARGET NAME): links a shared library with the version script NAME.map and fails
# the build when its exported symbols differ from the checked-in list of this width, which stands in
# NAME.i386.symbols or NAME.amd64.symbols: a va_list argument is spelled differently. The lists are those of gcc.
function(zelmedia_exports TARGET NAME)
  set(MAP ${NAME}.map)
  if(ZELMEDIA_M32 OR CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(SYMBOLS ${NAME}.i386.symbols)
  else()
    set(SYMBOLS ${NAME}.amd64.symbols)
  endif()
  target_link_options(${TARGET} PRIVATE -Wl,--version-script=${MAP})
  set_property(TARGET ${TARGET} APPEND PROPERTY LINK_DEPENDS ${MAP} ${SYMBOLS})
  if(NOT ZELMEDIA_SANITIZE AND NOT ZELMEDIA_COVERAGE)
    target_link_options(${TARGET} PRIVATE -Wl,--no-undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
      add_custom_command(TARGET ${TARGET} POST_BUILD
        COMMAND ${PROJECT_SOURCE_DIR}/cmake/check-exports $<TARGET_FILE:${TARGET}> ${SYMBOLS}
        VERBATIM)
    endif()
  endif()
endfunction()
