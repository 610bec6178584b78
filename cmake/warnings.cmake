# velmora::warnings: what a target of this project is compiled with, by compiler. Warnings are errors where the project
# is developed, and only warnings in a project that takes it in.
add_library(velmora_warnings INTERFACE)
add_library(velmora::warnings ALIAS velmora_warnings)
if(MSVC)
    # Not tried yet: nobody has built this project with this compiler.
    target_compile_options(velmora_warnings INTERFACE $<$<COMPILE_LANGUAGE:C,CXX>:/W4 /utf-8> $<$<COMPILE_LANGUAGE:CXX>:/EHs>)
else()
    target_compile_options(velmora_warnings INTERFACE
        $<$<COMPILE_LANGUAGE:C,CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wconversion>
        $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wreserved-identifier>)
    if(PROJECT_IS_TOP_LEVEL)
        target_compile_options(velmora_warnings INTERFACE $<$<COMPILE_LANGUAGE:C,CXX>:-Werror>)
    endif()
endif()
