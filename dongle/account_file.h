// The account of packets as a file.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "dongle/account.h"

namespace dongle {

class AccountFile {
  public:
    /// Replaces the file. Throws std::runtime_error when that is not possible.
    AccountFile(std::string path, const Settings& settings);
    /// Writes the lines of a packet. Not after `finish`.
    void write(const PacketRecord& record);
    /// Throws std::runtime_error when not everything could be written.
    void finish();

  private:
    std::string path_;
    std::ofstream file_;
    std::vector<std::string> addresses_;  // by place in the settings
};

}  // namespace dongle
