# GNU's linker takes seconds for each test program of Windows, which has thousands of sections. What is shipped stays with it.
if(MINGW)
    find_program(VELMORA_CLANG clang++)
    find_program(VELMORA_LLD ld.lld)
    if(VELMORA_CLANG AND VELMORA_LLD)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name OUTPUT_VARIABLE libgcc)
        cmake_path(GET libgcc PARENT_PATH libgcc)
        set(CMAKE_CXX_LINK_EXECUTABLE "${VELMORA_CLANG} --target=${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32 -fuse-ld=lld \
-L${libgcc} <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES> -lpthread")
    endif()
endif()

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
