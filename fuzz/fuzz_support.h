#pragma once

#include <cstdlib>
#include <loguru/loguru.hpp>

#include "base/log.h"

/// What the fuzz targets share.
namespace fuzz {

/// Ends the program, which the fuzzer reports as a finding.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Has every log line of the library written, to nowhere, so that making the lines is tried as well. Without one
/// nothing is logged at all.
class Log {
  public:
    explicit Log(bool wanted) : wanted_(wanted) {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        if (wanted_) {
            loguru::add_callback(
                "fuzz", [](void*, const loguru::Message&) {}, nullptr, loguru::Verbosity_MAX);
        }
        kxorbeta_if::refreshLogCutoff();
    }
    ~Log() {
        if (wanted_) {
            loguru::remove_callback("fuzz");
        }
        kxorbeta_if::refreshLogCutoff();
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

  private:
    bool wanted_;
};

}  // namespace fuzz
