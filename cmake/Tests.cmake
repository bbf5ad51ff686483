# zelmedia_test(NAME SOURCE... [LIBS TARGET...]): a GoogleTest program of which every test case runs
# in a process and a /tmp of its own.
include(GoogleTest)

function(zelmedia_test NAME)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  add_executable(${NAME} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${NAME} PRIVATE zelmedia_warnings ${ARG_LIBS} GTest::gmock_main)
  list(LENGTH ARG_UNPARSED_ARGUMENTS count)
  if(count GREATER 4) # the headers of GoogleTest take longer than most test files
    target_precompile_headers(${NAME} PRIVATE <gmock/gmock.h>)
    if(ZELMEDIA_SANITIZE OR ZELMEDIA_M32 OR ZELMEDIA_COVERAGE) # the plain build shows that each file stands on its own
      set_target_properties(${NAME} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
      target_compile_options(${NAME} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>) # fixtures without a name
    endif()
  endif()
  # ctest and the test discovery both start programs through this property.
  set_target_properties(${NAME} PROPERTIES
    CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/tests/support/private-tmp)
  gtest_discover_tests(${NAME} TEST_PREFIX "${NAME}." DISCOVERY_TIMEOUT 60)
endfunction()

# zelmedia_wrap_platform(TARGET): puts tests/support/PlatformSeams.cpp between the library's objects
# and the operations of CPortable, in TARGET and in what links it.
function(zelmedia_wrap_platform TARGET)
  target_link_options(${TARGET} PUBLIC
    -Wl,--wrap=_ZN9CPortable15GetTickCountULLEv
    -Wl,--wrap=_ZN9CPortable12CreateThreadEPFPvS0_ES0_PmPKc
    -Wl,--wrap=_ZN9CPortable19GetCurrentProcessIdEv)
endfunction()
