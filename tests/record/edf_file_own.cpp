#include "record/edf_file.h"
#include "record/edf_reader.h"

namespace test {

// Where the other reader is not to be had; the files are the same ones.
EdfFile EdfFile::read(const std::string& path) {
    velmora::record::EdfReader reader(path);
    EdfFile file;
    file.recordSeconds = reader.recordSeconds();
    file.records = static_cast<std::int64_t>(reader.records());
    file.start = reader.startDate() + ' ' + reader.startTime();
    file.start.insert(6, "20");
    file.start[13] = file.start[16] = ':';
    for (const auto& signal : reader.signals())
        file.signals.push_back({signal.label, signal.unit, signal.physicalMin, signal.physicalMax, {}});
    for (std::uint64_t i = 0; i < reader.records(); ++i) {
        auto samples = reader.record(i);
        for (std::size_t s = 0; s < file.signals.size(); ++s) {
            const std::size_t count = reader.signals()[s].samplesInRecord;
            file.signals[s].samples.insert(file.signals[s].samples.end(), samples.begin(),
                                           samples.begin() + static_cast<std::ptrdiff_t>(count));
            samples = samples.subspan(count);
        }
    }
    for (const auto& annotation : reader.annotations())
        file.annotations.push_back({annotation.onset, annotation.duration, annotation.text});
    return file;
}

}  // namespace test
