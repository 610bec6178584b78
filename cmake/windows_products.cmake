# What Windows wants of programs and libraries: a version resource, debug information in a file of its own, and import
# libraries for more than one compiler.
find_program(VELMORA_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)

# velmora_windows_version(TARGET VERSION TEXT): gives the file a version resource and, with MinGW, puts its debug
# information beside it, into "velmora.dll.debug" and the like.
function(velmora_windows_version target version text)
    string(REGEX MATCHALL "[0-9]+" numbers "${version}.0.0")
    list(TRANSFORM numbers REPLACE "^0+([0-9])" "\\1")
    list(SUBLIST numbers 0 4 numbers)
    list(JOIN numbers "," VERSION_NUMBERS)
    set(VERSION_TEXT ${version})
    set(DESCRIPTION ${text})
    get_target_property(type ${target} TYPE)
    get_target_property(name ${target} OUTPUT_NAME)
    if(NOT name)
        set(name ${target})
    endif()
    set(FILE_TYPE VFT_APP)
    set(FILE_NAME ${name}.exe)
    if(type STREQUAL SHARED_LIBRARY)
        set(FILE_TYPE VFT_DLL)
        set(FILE_NAME ${name}.dll)
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/packaging/version.rc.in ${PROJECT_BINARY_DIR}/resources/${FILE_NAME}.rc @ONLY)
    add_library(${target}_version OBJECT ${PROJECT_BINARY_DIR}/resources/${FILE_NAME}.rc)
    target_link_libraries(${target} PRIVATE ${target}_version)
    if(NOT MSVC)
        add_custom_command(TARGET ${target} POST_BUILD VERBATIM
            COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
            COMMAND ${CMAKE_STRIP} --strip-unneeded $<TARGET_FILE:${target}>
            COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug $<TARGET_FILE:${target}>)
    endif()
endfunction()

# velmora_windows_library(TARGET VERSION TEXT HEADER): the same for a DLL, which gets one name and two import libraries:
# lib<name>.dll.a from MinGW, and <name>.lib for MSVC, which holds the C functions that the header declares.
function(velmora_windows_library target version text header)
    set_target_properties(${target} PROPERTIES PREFIX "" IMPORT_PREFIX "lib")
    velmora_windows_version(${target} ${version} ${text})
    if(NOT VELMORA_LLVM_DLLTOOL OR MSVC)
        return()
    endif()
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} declarations REGEX "^VELMORA_(API|PUBLIC) ")
    list(TRANSFORM declarations REPLACE "^.*[ *]([A-Za-z_]+)\\(.*$" "  \\1")
    list(JOIN declarations "\n" names)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/resources/${target}.def CONTENT "LIBRARY ${target}.dll\nEXPORTS\n${names}\n")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${header})
    add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/${target}.lib VERBATIM
        COMMAND ${VELMORA_LLVM_DLLTOOL} -m i386:x86-64 -d ${PROJECT_BINARY_DIR}/resources/${target}.def
            -l ${PROJECT_BINARY_DIR}/${target}.lib
        DEPENDS ${PROJECT_BINARY_DIR}/resources/${target}.def)
    add_custom_target(${target}_msvc_import ALL DEPENDS ${PROJECT_BINARY_DIR}/${target}.lib)
endfunction()
