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

namespace detail {
// 0 while no moment stands; unreadMoment before its clock was read; the time that it has
// afterwards.
inline constexpr double unreadMoment = -1;
inline constinit thread_local double momentTime = 0;
}  // namespace detail

// While one stands, its thread reads the system clock at most once: currentTime() and the trace
// records have the time at which either was first asked for. For the length of one call of a
// handler. A moment within another one has no effect. A clock that the host has set is read every
// time.
class Moment {
 public:
  Moment() noexcept : outer_{detail::momentTime} {
    if (outer_ == 0) {
      detail::momentTime = detail::unreadMoment;
    }
  }
  ~Moment() { detail::momentTime = outer_; }
  Moment(const Moment&) = delete;
  Moment& operator=(const Moment&) = delete;

  [[nodiscard]] static bool stands() noexcept { return detail::momentTime != 0; }

 private:
  const double outer_;
};

}  // namespace Korm
