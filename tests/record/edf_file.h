#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

/// What an EDF+ file says, as a reader tells that shares nothing with the writer (where there is one for the platform).
struct EdfFile {
    struct Annotation {
        double onset;     // seconds from the first sample
        double duration;  // seconds; -1: none
        std::string text;
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
    /// Of the same bytes.
    static EdfFile readBytes(const std::string& bytes);
};

}  // namespace test
