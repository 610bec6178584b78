# velmora_test(NAME SOURCES FILES... [LINES N]): one test program over the library's objects, run as one test.
#   LINES  how many serial lines it uses at the same time: run under Wine it is given that many pairs of ports
function(velmora_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "LINES" "SOURCES")
    add_executable(${name} ${test_SOURCES})
    target_link_libraries(${name} PRIVATE velmora_test_support GTest::gtest_main velmora::warnings)
    add_test(NAME ${name} COMMAND ${name})
    if(test_LINES)
        set_tests_properties(${name} PROPERTIES ENVIRONMENT VELMORA_LINE_PAIRS=${test_LINES})
    endif()
endfunction()
