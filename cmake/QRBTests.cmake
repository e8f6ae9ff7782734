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


# qrb_add_test_fixtures(TARGET TEST SCRIPT SCRIPT DIR_VARIABLE VAR FOLDER NAME COMMENT TEXT):
# the files a fixture script makes, once per build tree, into the build folder NAME (the script
# is run again when it changes). The test program depends on them and sees their folder as the
# compile definition VAR, which is also set in the caller's scope.
function(qrb_add_test_fixtures target)
  cmake_parse_arguments(ARG "" "TEST;SCRIPT;DIR_VARIABLE;FOLDER;COMMENT" "" ${ARGN})
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/${ARG_FOLDER})
  add_custom_command(
    OUTPUT ${dir}/stamp
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_SCRIPT} ${dir}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_SCRIPT}
    COMMENT ${ARG_COMMENT}
    VERBATIM)
  add_custom_target(${target} DEPENDS ${dir}/stamp)
  add_dependencies(${ARG_TEST} ${target})
  target_compile_definitions(${ARG_TEST} PRIVATE ${ARG_DIR_VARIABLE}="${dir}")
  set(${ARG_DIR_VARIABLE} ${dir} PARENT_SCOPE)
endfunction()
