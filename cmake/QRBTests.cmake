# qrb_add_test(NAME SOURCES src... [LIBS lib...])
# One executable per module; each test case runs in its own process (the service is a
# process-wide singleton), and every case has a time limit so that a hang fails instead of
# stalling CI.
function(qrb_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE qrb-thumbnail-core qrb-platform-drm-fake qrb-testing
                        ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 180 ENVIRONMENT "QRB_TEST_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()

