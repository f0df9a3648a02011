// The timers that the engine needs from the loop that drives it.
//
// Threads: the activity thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace P4rt {

class Timers {
 public:
  using Id = std::uint64_t;

  Timers() = default;
  virtual ~Timers() = default;
  Timers(const Timers&) = delete;
  Timers& operator=(const Timers&) = delete;

  // Runs `work` once, after `delay` has passed, and never within this call. With a delay of 0 it
  // runs as soon as the loop is free. Work that is due at the same time runs in the order of the
  // calls.
  virtual Id after(std::chrono::milliseconds delay, std::function<void()> work) = 0;
  // Cancels work that has not begun. Other ids are ignored.
  virtual void cancel(Id timer) = 0;
};

}  // namespace P4rt
