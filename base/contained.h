#pragma once

#include <utility>
#if __has_include(<cxxabi.h>)
#include <cxxabi.h>
#endif

namespace kxorbeta_if {

/// Runs `work`; when it throws, `otherwise` gives the result instead.
///
/// A thread that ends inside a callback (pthread_exit, which is also how an interpreter that shuts down ends its
/// callers) unwinds as if by an exception that nobody may keep: the runtime ends the process when it is caught and not
/// passed on. So it passes through here, and through every destructor on its way.
template <typename Work, typename Otherwise>
auto contained(Work&& work, Otherwise&& otherwise) -> decltype(work()) {
    try {
        return std::forward<Work>(work)();
    }
#if __has_include(<cxxabi.h>)
    catch (abi::__forced_unwind&) {
        throw;
    }
#endif
    catch (...) {
        return std::forward<Otherwise>(otherwise)();
    }
}

/// Runs `work`, and drops what it throws.
template <typename Work>
void contained(Work&& work) {
    contained(std::forward<Work>(work), [] {});
}

}  // namespace kxorbeta_if
