// The page's files, put into the program when it is built.
#pragma once

#include <span>
#include <string_view>

namespace velmora::view {

struct PageFile {
    std::string_view path;  ///< as it is asked for: "/view.js"
    std::string_view type;  ///< of its content
    std::string_view content;
};

std::span<const PageFile> pageFiles();

}  // namespace velmora::view
