# GoogleTest: the system's libraries natively, its packaged sources for the cross build.
if(CMAKE_CROSSCOMPILING)
    set(INSTALL_GTEST OFF)
    set(BUILD_GMOCK ON)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    target_compile_options(gtest PRIVATE -O0)  # as the tests
    if(NOT TARGET GTest::gmock)
        add_library(GTest::gtest ALIAS gtest)
        add_library(GTest::gtest_main ALIAS gtest_main)
        add_library(GTest::gmock ALIAS gmock)
    endif()
else()
    find_package(GTest REQUIRED)
endif()
