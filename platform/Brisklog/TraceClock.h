// The time of a record, as cheap as the machine allows. For Brisklog's own use.
//
// Where the processor has a time-stamp counter that runs at one rate whatever the processor does,
// records hold its ticks; a reader converts them by a calibration against the system clock that the
// ring carries and that its writer renews.
//
// Thread and process rule: everything here may be called from any thread.
#pragma once

#include <cstdint>

namespace Brisklog::detail {

// A point at which both clocks were read, and the rate between them.
struct ClockCalibration {
  std::uint64_t ticks = 0;
  std::uint64_t nanoseconds = 0;  // since 1970-01-01 00:00:00 UTC
  double nanosecondsPerTick = 0;
};

// Whether ticks() counts at one rate.
[[nodiscard]] bool ticksAreUsable() noexcept;
[[nodiscard]] std::uint64_t ticks() noexcept;

// The rate gets better with the time since the first call, which takes a millisecond.
[[nodiscard]] ClockCalibration calibrateTicks();

// How long a calibration taken now should stand, in ticks: ten milliseconds at first, a second
// later on.
[[nodiscard]] std::uint64_t calibrationLife(const ClockCalibration& calibration) noexcept;

}  // namespace Brisklog::detail
