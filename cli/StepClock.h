// A clock that makes the output of a run reproducible.
//
// Threads: one thread; it is the clock of the whole process.
#pragma once

namespace Cli::StepClock {

// Makes it the framework's clock, at 0.
void install() noexcept;
// One second later.
void advance() noexcept;

}  // namespace Cli::StepClock
