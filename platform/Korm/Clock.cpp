#include "platform/Korm/Clock.h"

#include <atomic>
#include <chrono>

namespace Korm {
namespace {
constinit std::atomic<ClockFunction> hostClock{nullptr};
}

double currentTime() {
  if (const ClockFunction clock = hostClock.load(std::memory_order_relaxed)) {
    return clock();
  }
  if (detail::momentTime > 0) {
    return detail::momentTime;
  }
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const double seconds = std::chrono::duration<double>(now).count();
  if (Moment::exists()) {
    detail::momentTime = seconds;
  }
  return seconds;
}

void clockIs(ClockFunction clock) noexcept { hostClock.store(clock, std::memory_order_relaxed); }

bool clockIsSystem() noexcept { return hostClock.load(std::memory_order_relaxed) == nullptr; }

}  // namespace Korm
