# Makes a source file that holds files: cmake -D OUTPUT=page.cpp -D FOLDER=page -D FILES="index.html;view.js" -P embed.cmake
# Bytes as numbers, because a compiler takes neither texts of any length nor every letter as it is.
cmake_minimum_required(VERSION 3.25)

set(arrays "")
set(entries "")
foreach(file IN LISTS FILES)
    file(READ ${FOLDER}/${file} bytes HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(REGEX REPLACE "(................................................................................)" "\\1\n" bytes "${bytes}")
    string(MAKE_C_IDENTIFIER ${file} name)
    string(APPEND arrays "const unsigned char ${name}[] = {\n${bytes}\n};\n")
    set(path /${file})
    if(file STREQUAL index.html)
        set(path /)
    endif()
    get_filename_component(ending ${file} LAST_EXT)
    set(type_.html "text/html")
    set(type_.css "text/css")
    set(type_.js "text/javascript")
    set(type_.svg "image/svg+xml")
    string(APPEND entries "    {\"${path}\", \"${type_${ending}}\", {reinterpret_cast<const char*>(${name}), sizeof ${name}}},\n")
endforeach()
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT "#include \"view/page.h\"

namespace velmora::view {
namespace {

@arrays@
}  // namespace

std::span<const PageFile> pageFiles() {
    static const PageFile files[] = {
@entries@    };
    return files;
}

}  // namespace velmora::view
")
