# CLI11 parses the tools' arguments. It is headers only, so the system's serve the cross build as well; they are reached
# through a link of their own, because the rest of the system's headers must stay out of that build. Without CLI11 there is
# no target velmora::cli11.
find_path(VELMORA_CLI11_FOLDER CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH)
if(VELMORA_CLI11_FOLDER)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cli11)
    file(CREATE_LINK ${VELMORA_CLI11_FOLDER}/CLI ${CMAKE_BINARY_DIR}/cli11/CLI SYMBOLIC)
    add_library(velmora_cli11 INTERFACE)
    add_library(velmora::cli11 ALIAS velmora_cli11)
    target_include_directories(velmora_cli11 SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/cli11)
endif()

# velmora_command_line(FILES...): those that take CLI11 in. They run once, and with -O1 compile in half the time; under
# sanitizers each takes minutes, for a parser that is not ours and reads what its own user has typed.
function(velmora_command_line)
    if(VELMORA_SANITIZE)
        set_source_files_properties(${ARGV} PROPERTIES COMPILE_OPTIONS "-fno-sanitize=all;-O0")
    elseif(NOT MSVC)
        set_source_files_properties(${ARGV} PROPERTIES COMPILE_OPTIONS -O1)
    endif()
endfunction()
