# The fuzz targets as plain programs that run over their seeds: every compiler and both platforms take part, and an input
# that once found a fault stays a test.
foreach(target fuzz_framer fuzz_direct fuzz_scan fuzz_replies fuzz_session)
    add_executable(replay_${target} ${CMAKE_CURRENT_LIST_DIR}/${target}.cpp ${CMAKE_CURRENT_LIST_DIR}/replay_main.cpp)
    target_include_directories(replay_${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(replay_${target} PRIVATE velmora_objects velmora::warnings)
    # A name relative to the working folder means the same to a Windows program under Wine.
    add_test(NAME replay_${target} COMMAND replay_${target} ${target} WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/seeds)
endforeach()
target_sources(replay_fuzz_session PRIVATE
    ${PROJECT_SOURCE_DIR}/tests/session/reference_reader.cpp)
target_link_libraries(replay_fuzz_session PRIVATE velmora_stream_builder)
