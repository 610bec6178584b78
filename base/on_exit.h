#pragma once

#include <utility>

namespace kxorbeta_if {

/// Does something at the end of a scope, however that is left.
template <typename Action>
class OnExit {
  public:
    explicit OnExit(Action action) : action_(std::move(action)) {}
    ~OnExit() { action_(); }
    OnExit(const OnExit&) = delete;
    OnExit& operator=(const OnExit&) = delete;

  private:
    Action action_;
};

}  // namespace kxorbeta_if
