#pragma once

#include <new>

namespace kxorbeta_if {

/// Holds an object in static storage without ever running its destructor: threads of the library and of the host may
/// still use it while the process ends.
template <typename T>
class NeverDestroyed {
  public:
    NeverDestroyed() { new (storage_) T; }
    T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }

  private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace kxorbeta_if
