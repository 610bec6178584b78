# velmora_test(NAME SOURCES FILES... [OVER TARGETS...] [LINES N] [OPTIMISED]): one test program, run as one test.
#   OVER       what it stands on; without it, the objects of VelmoraSDK with all that helps to test them
#   LINES      how many serial lines it uses at the same time: run under Wine it is given that many pairs of ports
#   OPTIMISED  for tests that compute more than they wait
function(velmora_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "OPTIMISED" "LINES" "SOURCES;OVER")
    if(NOT test_OVER)
        set(test_OVER velmora_test_support)
    endif()
    add_executable(${name} ${test_SOURCES})
    target_link_libraries(${name} PRIVATE ${test_OVER} GTest::gtest_main velmora::warnings)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    if(test_OPTIMISED)
        target_compile_options(${name} PRIVATE -O2)
    else()
        target_precompile_headers(${name} REUSE_FROM velmora_testing)
    endif()
    add_test(NAME ${name} COMMAND ${name})
    if(test_LINES)
        set_tests_properties(${name} PROPERTIES ENVIRONMENT VELMORA_LINE_PAIRS=${test_LINES})
    endif()
endfunction()
