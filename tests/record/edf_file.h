#pragma once

#include <algorithm>
#include <cmath>
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

    /// How often each sample of a signal is marked as bad; the last number is for what lies outside of it.
    std::vector<int> marks(const Signal& signal, double rate) const {
        std::vector<int> marks(signal.samples.size() + 1);
        for (const Annotation& annotation : annotations) {
            if (!annotation.marks(signal.label))
                continue;
            const auto end = std::llround((annotation.onset + annotation.duration) * rate);
            for (auto i = std::llround(annotation.onset * rate); i < end; ++i)
                ++marks[std::min(static_cast<std::size_t>(i), signal.samples.size())];
        }
        return marks;
    }

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
