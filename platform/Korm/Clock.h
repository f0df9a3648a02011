// The framework's clock.
//
// Thread and process rule: currentTime() may be called from any thread; clockIs() is for the host's
// start-up and for tests, while no other thread reads the clock.
#pragma once

namespace Korm {

// Seconds since 1970-01-01 00:00:00 UTC.
using ClockFunction = double (*)();

[[nodiscard]] double currentTime();

// Replaces the clock of the whole process; null restores the system clock.
void clockIs(ClockFunction clock) noexcept;

// Whether currentTime() reads the system clock.
[[nodiscard]] bool clockIsSystem() noexcept;

}  // namespace Korm
