#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "support/working_folder.h"

namespace test {

/// What an EDF+ file says, as a reader tells that shares nothing with the writer (where there is one for the platform).
struct EdfFile {
    struct Annotation {
        double onset;     // seconds from the first sample
        double duration;  // seconds; -1: none
        std::string text;

        /// Whether it marks samples of that channel as bad.
        bool marks(const std::string& label) const {
            return text.starts_with("BAD_") &&
                   (text.ends_with(" all channels") || (text + ',').find(' ' + label + ',') != std::string::npos);
        }
    };
    struct Signal {
        std::string label, unit;
        double physicalMin, physicalMax;
        std::vector<std::int16_t> samples;
    };

    double recordSeconds = 0;
    std::int64_t records = 0;
    std::string start;  // dd.mm.yyyy hh:mm:ss
    std::vector<Signal> signals;
    std::vector<Annotation> annotations;

    /// Throws std::runtime_error when the reader refuses the file.
    static EdfFile read(const std::string& path);
    /// The readers take paths alone.
    static EdfFile readBytes(const std::string& bytes) {
        const WorkingFolder folder;
        std::ofstream("bytes.edf", std::ios::binary) << bytes;
        return read("bytes.edf");
    }
};

}  // namespace test
