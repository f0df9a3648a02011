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
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

void clockIs(ClockFunction clock) noexcept { hostClock.store(clock, std::memory_order_relaxed); }

bool clockIsSystem() noexcept { return hostClock.load(std::memory_order_relaxed) == nullptr; }

}  // namespace Korm
