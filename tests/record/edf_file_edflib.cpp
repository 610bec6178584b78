#include <edflib.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "record/edf_file.h"

namespace test {

EdfFile EdfFile::read(const std::string& path) {
    const auto header = std::make_unique<edf_hdr_struct>();
    if (edfopen_file_readonly(path.c_str(), header.get(), EDFLIB_READ_ALL_ANNOTATIONS) != 0)
        throw std::runtime_error("EDFlib refuses the file: " + std::to_string(header->filetype));
    if (header->filetype != EDFLIB_FILETYPE_EDFPLUS)
        throw std::runtime_error("no EDF+ file");
    EdfFile file;
    file.recordSeconds = static_cast<double>(header->datarecord_duration) / EDFLIB_TIME_DIMENSION;
    file.records = header->datarecords_in_file;
    std::array<char, 96> start;
    std::snprintf(start.data(), start.size(), "%02d.%02d.%04d %02d:%02d:%02d", header->startdate_day,
                  header->startdate_month, header->startdate_year, header->starttime_hour, header->starttime_minute,
                  header->starttime_second);
    file.start = start.data();
    for (int i = 0; i < header->edfsignals; ++i) {
        const edf_param_struct& from = header->signalparam[i];
        const auto text = [](const char* padded) {
            std::string result(padded);
            result.erase(result.find_last_not_of(' ') + 1);
            return result;
        };
        Signal signal{text(from.label), text(from.physdimension), from.phys_min, from.phys_max, {}};
        std::vector<int> samples(static_cast<std::size_t>(from.smp_in_file));
        if (edfread_digital_samples(header->handle, i, static_cast<int>(samples.size()), samples.data()) !=
            static_cast<int>(samples.size()))
            throw std::runtime_error("EDFlib cannot read all samples");
        signal.samples.assign(samples.begin(), samples.end());
        file.signals.push_back(std::move(signal));
    }
    for (int i = 0; i < header->annotations_in_file; ++i) {
        edf_annotation_struct annotation;
        if (edf_get_annotation(header->handle, i, &annotation) != 0)
            throw std::runtime_error("EDFlib cannot read an annotation");
        file.annotations.push_back(
            {static_cast<double>(annotation.onset) / EDFLIB_TIME_DIMENSION,
             annotation.duration_l < 0 ? -1 : static_cast<double>(annotation.duration_l) / EDFLIB_TIME_DIMENSION,
             annotation.annotation});
    }
    edfclose_file(header->handle);
    return file;
}

}  // namespace test
