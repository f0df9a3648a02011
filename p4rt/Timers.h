// What the engine asks of the loop that drives it.
//
// Thread and process rule: the activity thread.
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

  // Runs `work` once, not before `delay` has passed and never inside this call; with no delay as
  // soon as the loop is free. Work of equal times runs in the order of the calls.
  virtual Id after(std::chrono::milliseconds delay, std::function<void()> work) = 0;
  // Forgets work that has not begun; others are ignored.
  virtual void cancel(Id timer) = 0;
};

}  // namespace P4rt
