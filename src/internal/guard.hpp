// What is done at the end of a scope, however the scope is left.
#ifndef TALVIK_INTERNAL_GUARD_HPP
#define TALVIK_INTERNAL_GUARD_HPP

#include <utility>

namespace talvik::internal {

/// Runs `action` at the end of its scope, by an exception or without one, unless it is dismissed.
template <class Action>
class [[nodiscard]] Guard {
 public:
  explicit Guard(Action action) : action_(std::move(action)) {}
  ~Guard() {
    if (armed_) action_();
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  void dismiss() { armed_ = false; }

 private:
  Action action_;
  bool armed_ = true;
};

}  // namespace talvik::internal

#endif
