#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// After <windows.h>, which it needs.
#include <shellapi.h>

#include "cli/live_view.h"

namespace velmora::cli {

bool openBrowser(const std::string& address) {
    constexpr INT_PTR kLastFailure = 32;
    // An address is ASCII throughout.
    return reinterpret_cast<INT_PTR>(
               ::ShellExecuteA(nullptr, "open", address.c_str(), nullptr, nullptr, SW_SHOWNORMAL)) > kLastFailure;
}

}  // namespace velmora::cli
