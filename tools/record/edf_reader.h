// Reads EDF+ files as far as a picture needs it, whoever wrote them.
#pragma once

#include <cstdint>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace velmora::record {

/// The file cannot be opened or is no EDF file. what() says what is wrong.
class EdfError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct EdfSignal {
    std::string label;
    std::string unit;
    double physicalMin = 0, physicalMax = 0;
    int digitalMin = 0, digitalMax = 0;
    std::size_t samplesInRecord = 0;

    double physical(int digital) const {
        return physicalMin + (digital - digitalMin) * (physicalMax - physicalMin) / (digitalMax - digitalMin);
    }
};

struct EdfAnnotation {
    double onset = 0;     ///< seconds from the first sample
    double duration = 0;  ///< seconds
    std::string text;
};

/// A file of continuous records. Files that end early, as after a crash, count as long as their whole records go.
class EdfReader {
  public:
    /// `path` is UTF-8. Throws EdfError.
    explicit EdfReader(const std::string& path);

    const std::string& startDate() const { return startDate_; }  ///< dd.mm.yy
    const std::string& startTime() const { return startTime_; }  ///< hh.mm.ss
    double recordSeconds() const { return recordSeconds_; }
    std::uint64_t records() const { return records_; }
    double seconds() const { return recordSeconds_ * static_cast<double>(records_); }
    /// Those with samples; the annotations are not among them.
    const std::vector<EdfSignal>& signals() const { return signals_; }

    /// The samples of one record, signal after signal. Valid until the next call. Throws EdfError.
    std::span<const std::int16_t> record(std::uint64_t number);
    /// Of the whole file, by onset. What is no annotation is skipped. Reads the file from one end to the other.
    std::vector<EdfAnnotation> annotations();

  private:
    struct Stretch {
        std::size_t at, size;  // bytes in a record
    };
    std::span<const char> bytes(std::uint64_t number);

    std::ifstream file_;
    std::string startDate_, startTime_;
    double recordSeconds_ = 0;
    std::uint64_t records_ = 0;
    std::uint64_t headerSize_ = 0;
    std::vector<EdfSignal> signals_;
    std::vector<Stretch> sampleStretches_;
    std::vector<Stretch> annotationStretches_;
    std::vector<char> bytes_;
    std::vector<std::int16_t> samples_;
};

}  // namespace velmora::record
