// The activity thread's run queue, and counters of what entities do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Korm {

// Work that is done later rather than now, on the one activity thread, in the order in which it was
// deferred. Nothing runs by itself: the host calls run() when it is otherwise idle.
class Activity {
 public:
  void defer(std::function<void()> work) { queue_.push_back(std::move(work)); }

  // Runs until the queue is empty, including what the work itself defers.
  // Throws: whatever the work throws; the work behind it stays queued.
  void run() {
    while (!idle()) {
      const std::function<void()> work = std::move(queue_[next_]);
      ++next_;
      work();
    }
    queue_.clear();
    next_ = 0;
  }

  [[nodiscard]] bool idle() const noexcept { return next_ == queue_.size(); }
  // Drops the queue. What the destructors of the dropped work defer stays queued.
  void clear() noexcept {
    next_ = 0;
    std::vector<std::function<void()>>{}.swap(queue_);
  }

 private:
  // Neither making nor clearing it allocates.
  std::vector<std::function<void()>> queue_;
  std::size_t next_ = 0;  // in the queue; what stands before it is done
};

// The run queue of the process.
[[nodiscard]] Activity& activity() noexcept;

// Counts of an entity's activity, by name. A counter never moves while the set lives.
class ActivityCounters {
 public:
  using Counter = std::uint64_t;

  [[nodiscard]] Counter& counter(const std::string& name) { return counters_[name]; }
  // 0 for a counter that is not registered.
  [[nodiscard]] Counter value(std::string_view name) const {
    const auto found = counters_.find(name);
    return found == counters_.end() ? 0 : found->second;
  }
  [[nodiscard]] const auto& all() const noexcept { return counters_; }

 private:
  std::map<std::string, Counter, std::less<>> counters_;
};

}  // namespace Korm
