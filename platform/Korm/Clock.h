// The framework's clock.
//
// Threads: currentTime() may be called from any thread; clockIs() is for the host's start-up and
// for tests, while no other thread reads the clock.
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
// 0 while there is no moment, unreadMoment until its clock is read, and from then on its time.
inline constexpr double unreadMoment = -1;
inline constinit thread_local double momentTime = 0;
}  // namespace detail

// While a Moment exists, its thread reads the system clock at most once: currentTime() and the
// trace records all have the time of the first reading. Meant for one call of a handler. A moment
// within another one has no effect. A clock that the host has set is read every time.
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

  [[nodiscard]] static bool exists() noexcept { return detail::momentTime != 0; }

 private:
  const double outer_;
};

}  // namespace Korm
