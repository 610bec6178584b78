// A picture of a recording.
#pragma once

#include <string>

#include "record/edf_reader.h"

namespace velmora::record {

struct PlotOptions {
    int width = 1200;   ///< pixels, at least 400
    double from = 0;    ///< seconds from the start
    double length = 0;  ///< seconds; 0: to the end
};

/// The channels under each other as SVG, with losses, drop-outs and marks. Throws EdfError when the file cannot be read
/// or the time asked for lies outside.
///   title   above the picture, the file's name for example
std::string plotSvg(EdfReader& file, const std::string& title, const PlotOptions& options = {});

}  // namespace velmora::record
