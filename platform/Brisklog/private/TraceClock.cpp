#include "platform/Brisklog/private/TraceClock.h"

#include <time.h>

#include <algorithm>
#include <limits>
#include <mutex>

// The one place of the trace that depends on the processor.
#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

namespace Brisklog::detail {
namespace {

constexpr double baselineNanoseconds = 1e6;

// The rate is measured against the monotonic clock, which nobody sets.
struct Sample {
  std::uint64_t ticks = 0;
  std::uint64_t realtime = 0;
  std::uint64_t monotonic = 0;
};

std::uint64_t readClock(clockid_t clock) noexcept {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

// Takes several samples and returns the one that was interrupted least.
Sample sample() noexcept {
  Sample best;
  std::uint64_t bestSpan = std::numeric_limits<std::uint64_t>::max();
  for (int attempt = 0; attempt < 5; ++attempt) {
    const std::uint64_t before = ticks();
    const std::uint64_t realtime = readClock(CLOCK_REALTIME);
    const std::uint64_t monotonic = readClock(CLOCK_MONOTONIC);
    const std::uint64_t span = ticks() - before;
    if (span < bestSpan) {
      bestSpan = span;
      best = {.ticks = before + span / 2, .realtime = realtime, .monotonic = monotonic};
    }
  }
  return best;
}

const Sample& baseline() noexcept {
  static const Sample first = sample();
  return first;
}

}  // namespace

#if defined(__x86_64__)
bool ticksAreUsable() noexcept {
  static const bool usable = [] {
    constexpr unsigned powerManagementLeaf = 0x80000007;
    constexpr unsigned invariantCounter = 1U << 8;
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(powerManagementLeaf, &a, &b, &c, &d) != 0 && (d & invariantCounter) != 0;
  }();
  return usable;
}

std::uint64_t ticks() noexcept { return __rdtsc(); }
#else
bool ticksAreUsable() noexcept { return false; }

std::uint64_t ticks() noexcept { return 0; }
#endif

ClockCalibration calibrateTicks() {
  const Sample& first = baseline();
  Sample now = sample();
  while (static_cast<double>(now.monotonic - first.monotonic) < baselineNanoseconds) {
    now = sample();
  }
  return {.ticks = now.ticks,
          .nanoseconds = now.realtime,
          .nanosecondsPerTick = static_cast<double>(now.monotonic - first.monotonic) /
                                static_cast<double>(now.ticks - first.ticks)};
}

std::uint64_t calibrationLife(const ClockCalibration& calibration) noexcept {
  const double known =
      static_cast<double>(calibration.ticks - baseline().ticks) * calibration.nanosecondsPerTick;
  return static_cast<std::uint64_t>(std::clamp(known, 1e7, 1e9) / calibration.nanosecondsPerTick);
}

}  // namespace Brisklog::detail
