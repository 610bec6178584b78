#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"
#include "record/edf_reader.h"
#include "record/output_file.h"

namespace velmora::cli {

void plotCommand(const PlotOptions& options, Reporter&) {
    std::string picture;
    try {
        record::EdfReader file(options.file);
        picture = record::plotSvg(file, options.file.substr(options.file.find_last_of("/\\") + 1), options.picture);
    } catch (const record::EdfError& error) {
        throw Failure(kNotDone, error.what());
    }
    if (options.output == "-") {
        std::cout << picture;
        return;
    }
    try {
        const auto ifExists = options.force ? record::IfExists::Overwrite : record::IfExists::Refuse;
        record::systemFiles().create(options.output, picture, ifExists)->close();
    } catch (const record::FileError& error) {
        throw Failure(kNoOutput, error.what());
    }
    std::cout << options.output << "\n";
}

}  // namespace velmora::cli
