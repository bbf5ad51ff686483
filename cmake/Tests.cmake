include(GoogleTest)

# Long tests begin first, also where none has run before: name, runs, seconds. ctest keeps this file up to date.
set(costs ${CMAKE_BINARY_DIR}/Testing/Temporary/CTestCostData.txt)
if(NOT EXISTS ${costs})
  configure_file(${PROJECT_SOURCE_DIR}/tests/costs.txt ${costs} COPYONLY)
endif()

# What starts each test in a /tmp of its own: a native program without sanitizers, whatever is tested.
set(ZELMEDIA_PRIVATE_TMP ${CMAKE_BINARY_DIR}/private-tmp)
find_program(ZELMEDIA_NATIVE_CC NAMES cc gcc clang REQUIRED)
set(keep_in_tmp "-DPRIVATE_TMP_KEEP=\"${PROJECT_SOURCE_DIR}\", \"${CMAKE_BINARY_DIR}\"")
cmake_path(IS_PREFIX PROJECT_SOURCE_DIR ${CMAKE_BINARY_DIR} inside_the_tree)
if(inside_the_tree)
  set(keep_in_tmp "-DPRIVATE_TMP_KEEP=\"${PROJECT_SOURCE_DIR}\"")
endif()
add_custom_command(OUTPUT ${ZELMEDIA_PRIVATE_TMP}
  COMMAND ${ZELMEDIA_NATIVE_CC} -O1 ${keep_in_tmp} -o ${ZELMEDIA_PRIVATE_TMP}
    ${PROJECT_SOURCE_DIR}/tests/support/PrivateTmp.c
  DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/PrivateTmp.c VERBATIM)
add_custom_target(private_tmp ALL DEPENDS ${ZELMEDIA_PRIVATE_TMP})

# zelmedia_test_headers(NAME HEADER...): headers that are compiled once for several programs, as they take longer than
# most test files. Of an executable, because libraries have other flags.
function(zelmedia_test_headers NAME)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${NAME}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "int main() {}\n")
  add_executable(${NAME} EXCLUDE_FROM_ALL ${source})
  target_link_libraries(${NAME} PRIVATE zelmedia_warnings GTest::gmock)
  target_precompile_headers(${NAME} PRIVATE ${ARGN})
endfunction()

# zelmedia_test(NAME SOURCE... [HEADERS TARGET] [LIBS TARGET...] [ONE_THREAD SOURCE...]): a GoogleTest program of which
# every test case runs in a process and a /tmp of its own. The thread sanitizer is not asked about sources that are named
# again behind ONE_THREAD. Its files are compiled several at once, but for coverage, which shows
# that each of them stands on its own.
function(zelmedia_test NAME)
  cmake_parse_arguments(ARG "" "HEADERS" "LIBS;ONE_THREAD" ${ARGN})
  if(ZELMEDIA_SANITIZE STREQUAL thread)
    list(REMOVE_ITEM ARG_UNPARSED_ARGUMENTS ${ARG_ONE_THREAD})
  endif()
  add_executable(${NAME} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${NAME} PRIVATE zelmedia_warnings ${ARG_LIBS} GTest::gmock_main)
  if(NOT ARG_HEADERS)
    set(ARG_HEADERS gmock_headers)
  endif()
  target_precompile_headers(${NAME} REUSE_FROM ${ARG_HEADERS})
  if(ZELMEDIA_UNITY AND NOT ZELMEDIA_COVERAGE)
    set_target_properties(${NAME} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
    target_compile_options(${NAME} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>) # fixtures without a name
  endif()
  # ctest and the test discovery both start programs through this property.
  set_target_properties(${NAME} PROPERTIES
    CROSSCOMPILING_EMULATOR "${ZELMEDIA_PRIVATE_TMP};${CMAKE_CROSSCOMPILING_EMULATOR}")
  add_dependencies(${NAME} private_tmp)
  gtest_discover_tests(${NAME} TEST_PREFIX "${NAME}." DISCOVERY_TIMEOUT 60)
endfunction()

# zelmedia_places(TARGET NAME PLACE...): gives tests/support/Places.h its values, in a file of their own: definitions
# with names of folders would keep all files from being found in the compiler cache of another clone.
function(zelmedia_places TARGET)
  set(content "#include \"${PROJECT_SOURCE_DIR}/tests/support/Places.h\"\n")
  set(arguments ${ARGN})
  while(arguments)
    list(POP_FRONT arguments name place)
    string(APPEND content "const char* const ${name} = \"${place}\";\n")
  endwhile()
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${TARGET}Places.cpp)
  file(GENERATE OUTPUT ${source} CONTENT "${content}")
  target_sources(${TARGET} PRIVATE ${source})
  target_include_directories(${TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  set_source_files_properties(${source} PROPERTIES SKIP_PRECOMPILE_HEADERS ON SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# zelmedia_wrap_platform(TARGET): puts tests/support/PlatformSeams.cpp between the library's objects
# and the operations of CPortable, in TARGET and in what links it.
function(zelmedia_wrap_platform TARGET)
  target_link_options(${TARGET} PUBLIC
    -Wl,--wrap=_ZN9CPortable15GetTickCountULLEv
    -Wl,--wrap=_ZN9CPortable12CreateThreadEPFPvS0_ES0_PmPKc
    -Wl,--wrap=_ZN9CPortable19GetCurrentProcessIdEv)
endfunction()
