# Flags for every target, and the warnings that our own targets ask for by linking zelmedia_warnings or,
# what is delivered, zelmedia_product_warnings. They are errors in our presets only. scripts/static-checks looks at what they make.

# Files of more than 2 GiB, and times after 2038, in 32 bits too.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(ZELMEDIA_SANITIZE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    message(FATAL_ERROR "Sanitizers need -DCMAKE_CXX_COMPILER=clang++, which compiles with them in half the time")
  endif()
  add_compile_options(-fsanitize=${ZELMEDIA_SANITIZE} -fno-omit-frame-pointer
    -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/tests/support/sanitizers.ignore)
  set(ZELMEDIA_SANITIZE_LINK -fsanitize=${ZELMEDIA_SANITIZE})
  if(ZELMEDIA_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(NOT ZELMEDIA_SANITIZE STREQUAL thread AND NOT ZELMEDIA_FUZZ)
    add_compile_options(-fno-sanitize=vptr) # needs a pipe for each look, and some tests leave no descriptor
    # A library of its own is ready before programs that have an allocator of theirs.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=lib/linux OUTPUT_VARIABLE sanitizers
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    list(APPEND ZELMEDIA_SANITIZE_LINK -shared-libsan -Wl,-rpath,${sanitizers})
  endif()
  add_link_options(${ZELMEDIA_SANITIZE_LINK})
elseif(NOT ZELMEDIA_COVERAGE)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
  add_compile_options(-fstack-protector-strong)
  if(NOT (CMAKE_CXX_COMPILER_ID STREQUAL Clang AND ZELMEDIA_ARCHITECTURE MATCHES "^arm")) # which has none
    add_compile_options(-fstack-clash-protection)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()

if(ZELMEDIA_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic -O0 -g)
  add_link_options(--coverage)
endif()

if(ZELMEDIA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

set(ZELMEDIA_WARNINGS
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wnull-dereference -Wconversion -Wdouble-promotion -Wformat=2 -Wno-format-nonliteral
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>  # gcc 12 finds overlaps in std::string where there are none
  $<$<CXX_COMPILER_ID:GNU>:-Wno-psabi>) # 32-bit ARM: what gcc 6 did is told of each std::map
# Left out: -Wuseless-cast, as types that are the same in one width differ in the other; -Wswitch-enum and
# -Wswitch-default, as a default is meant where it stands, and -Wall tells of values without one.
set(ZELMEDIA_PRODUCT_WARNINGS
  -Wsign-conversion -Wcast-qual -Wundef -Wredundant-decls -Wextra-semi -Wmissing-declarations
  -Wzero-as-null-pointer-constant -Wunused-macros -Wvla -Wdate-time -Wimplicit-fallthrough -Wmismatched-tags
  -Wctor-dtor-privacy -Wdeprecated-copy-dtor)
list(APPEND ZELMEDIA_PRODUCT_WARNINGS "$<$<CXX_COMPILER_ID:GNU>:-Wlogical-op;-Wduplicated-cond;-Wduplicated-branches;\
-Walloca;-Warith-conversion;-Wcast-align=strict;-Wcatch-value=3;-Wcomma-subscript;\
-Wformat-overflow=2;-Wformat-signedness;-Wimplicit-fallthrough=5;-Wplacement-new=2;-Wredundant-tags;\
-Wshift-overflow=2;-Wsign-promo;-Wstrict-null-sentinel;-Wsuggest-override;-Wtrampolines;-Wvolatile>")
list(APPEND ZELMEDIA_PRODUCT_WARNINGS "$<$<CXX_COMPILER_ID:Clang>:-Wassign-enum;-Wcomma;-Wconditional-uninitialized;\
-Wextra-semi-stmt;-Wloop-analysis;-Wmissing-noreturn;-Wmissing-variable-declarations;\
-Wnewline-eof;-Wshadow-all;-Wshift-sign-overflow;-Wsuggest-destructor-override;-Wsuggest-override;\
-Wtautological-compare;-Wthread-safety;-Wthread-safety-beta;-Wunreachable-code-aggressive;-Wunused-member-function;\
-Wunused-template>")

add_library(zelmedia_warnings INTERFACE)
target_compile_options(zelmedia_warnings INTERFACE ${ZELMEDIA_WARNINGS} -Wno-sign-conversion)
add_library(zelmedia_product_warnings INTERFACE)
target_compile_options(zelmedia_product_warnings INTERFACE ${ZELMEDIA_WARNINGS} ${ZELMEDIA_PRODUCT_WARNINGS})
