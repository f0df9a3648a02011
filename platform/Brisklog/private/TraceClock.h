// The time of a record, as cheap as the machine allows. Private to Brisklog.
//
// Where the processor has a time-stamp counter with a constant rate, records hold its ticks. A
// reader converts them with a calibration against the system clock, which the writer keeps in the
// ring and renews from time to time.
//
// Threads: everything here may be called from any thread.
#pragma once

#include <cstdint>

namespace Brisklog::detail {

// A moment at which both clocks were read, and the rate between them.
struct ClockCalibration {
  std::uint64_t ticks = 0;
  std::uint64_t nanoseconds = 0;  // since 1970-01-01 00:00:00 UTC
  double nanosecondsPerTick = 0;
};

// Whether ticks() counts at a constant rate.
[[nodiscard]] bool ticksAreUsable() noexcept;
[[nodiscard]] std::uint64_t ticks() noexcept;

// The rate gets more exact with the time since the first call. That call takes a millisecond.
[[nodiscard]] ClockCalibration calibrateTicks();

// For how many ticks this calibration should be used: ten milliseconds at first, a second later on.
[[nodiscard]] std::uint64_t calibrationLife(const ClockCalibration& calibration) noexcept;

}  // namespace Brisklog::detail
