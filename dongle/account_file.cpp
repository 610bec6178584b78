#include "dongle/account_file.h"

#include <stdexcept>
#include <utility>

namespace dongle {

AccountFile::AccountFile(std::string path, const Settings& settings) : path_(std::move(path)), file_(path_) {
    if (!file_) {
        throw std::runtime_error(path_ + " cannot be written");
    }
    for (const HeadsetSettings& headset : settings.headsets) {
        addresses_.push_back(headset.address);
    }
    file_ << accountTitle();
}

void AccountFile::write(const PacketRecord& record) {
    file_ << accountLines(record, addresses_[record.headset]);
}

void AccountFile::finish() {
    if (!file_.flush()) {
        throw std::runtime_error(path_ + " could not be written to its end");
    }
}

}  // namespace dongle
