#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "core/reply_handlers.h"

namespace kxorbeta_if {

/// Recognises the dongle's text reports in what the link thread read, which may stand between binary data, and hands
/// them to their handlers. Belongs to the link thread.
class ReportRouter {
  public:
    static constexpr std::size_t kLongestText = 2999;  ///< printable characters of a chunk that the handlers see

    explicit ReportRouter(const ReportTargets& targets) : targets_(targets) {}

    /// Calls the handler of each kind of report that the chunk holds: disconnection, list, connection. True when the
    /// dongle says that it has restarted.
    bool route(std::string_view chunk);

  private:
    const char* printableText(std::string_view chunk);

    const ReportTargets targets_;
    std::array<char, kLongestText + 1> text_{};
};

}  // namespace kxorbeta_if
