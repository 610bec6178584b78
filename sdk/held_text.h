#pragma once

#include <mutex>
#include <string>

namespace kxorbeta_if {

/// A text that a host may be reading: valid and unchanged until another one is held. Any thread.
class HeldText {
  public:
    const char* hold(const std::string& text) {
        const std::lock_guard guard(mutex_);
        if (text_ != text) {  // so that a host still reading the same text never sees it being written
            text_ = text;
        }
        return text_.c_str();
    }

    /// Gives its memory back.
    void drop() {
        const std::lock_guard guard(mutex_);
        std::string().swap(text_);
    }

  private:
    std::mutex mutex_;
    std::string text_;
};

}  // namespace kxorbeta_if
