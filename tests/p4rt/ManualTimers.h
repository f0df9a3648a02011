// Timers whose time a test moves.
#pragma once

#include "p4rt/Timers.h"
#include "tests/Testing.h"

namespace P4rtTest {

class ManualTimers final : public P4rt::Timers {
 public:
  Id after(std::chrono::milliseconds delay, std::function<void()> work) override {
    waiting_.emplace(std::pair{now_ + delay.count(), ++last_}, std::move(work));
    return last_;
  }
  void cancel(Id timer) override {
    std::erase_if(waiting_, [timer](const auto& one) { return one.first.second == timer; });
  }
  // Lets time pass, and runs what is due on the way.
  void pass(std::int64_t milliseconds) {
    const std::int64_t until = now_ + milliseconds;
    while (!waiting_.empty() && waiting_.begin()->first.first <= until) {
      now_ = std::max(now_, waiting_.begin()->first.first);
      const auto work = std::move(waiting_.begin()->second);
      waiting_.erase(waiting_.begin());
      work();
    }
    now_ = until;
  }
  [[nodiscard]] bool idle() const { return waiting_.empty(); }
  void forget() { waiting_.clear(); }

 private:
  std::int64_t now_ = 0;
  Id last_ = 0;
  std::map<std::pair<std::int64_t, Id>, std::function<void()>> waiting_;
};

}  // namespace P4rtTest
