#include <thread>
#include <utility>

#include "base/pinned_thread.h"

namespace kxorbeta_if {
namespace {

/// The loader keeps a library as long as a thread has an object of it to destroy at the thread's end. That is all this
/// object is for.
struct LibraryPin {
    ~LibraryPin() { inUse = false; }
    volatile bool inUse = false;
};

thread_local LibraryPin pin;

}  // namespace

void startPinnedThread(std::function<void()> work) {
    std::thread([work = std::move(work)] {
        pin.inUse = true;
        work();
    }).detach();
}

}  // namespace kxorbeta_if
