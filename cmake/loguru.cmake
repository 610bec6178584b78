# The logging library, linked in with hidden symbols, so that a host's own copy never meets ours. A system that packages
# it is taken at its word; elsewhere scripts/setup has put the sources into third_party/loguru.
find_package(loguru CONFIG QUIET)
if(loguru_FOUND)
    add_library(velmora_loguru INTERFACE)
    target_link_libraries(velmora_loguru INTERFACE loguru::loguru)
else()
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/third_party/loguru/loguru.cpp)
        message(FATAL_ERROR "third_party/loguru is missing: run scripts/setup once")
    endif()
    add_library(velmora_loguru STATIC third_party/loguru/loguru.cpp)
    target_compile_options(velmora_loguru PRIVATE $<IF:$<BOOL:${MSVC}>,/w,-w>)  # not ours to mend
    if(VELMORA_SANITIZE)
        target_compile_options(velmora_loguru PRIVATE -O0)  # half the compiler's time
    endif()
    target_include_directories(velmora_loguru SYSTEM PUBLIC third_party)
    target_link_libraries(velmora_loguru PUBLIC Threads::Threads ${CMAKE_DL_LIBS})
    set_target_properties(velmora_loguru PROPERTIES
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endif()
