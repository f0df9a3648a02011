#include "p4rt/core/Loop.h"

namespace P4rt {

void Loop::post(Task task) {
  bool wasEmpty = false;
  {
    const Korm::Lock lock{mutex_};
    wasEmpty = posted_.empty();
    posted_.push_back(std::move(task));
  }
  if (wasEmpty) {
    wake_.notify_one();
  }
}

void Loop::stop() {
  {
    const Korm::Lock lock{mutex_};
    stopped_ = true;
  }
  wake_.notify_one();
}

Timers::Id Loop::after(std::chrono::milliseconds delay, Task task) {
  const Id id = ++lastTimer_;
  const Clock::time_point due = Clock::now() + delay;
  timers_.emplace(std::pair{due, id}, std::move(task));
  dueTimes_.emplace(id, due);
  return id;
}

void Loop::cancel(Id timer) {
  if (const auto found = dueTimes_.find(timer); found != dueTimes_.end()) {
    timers_.erase({found->second, timer});
    dueTimes_.erase(found);
  }
}

void Loop::run() {
  for (;;) {
    const std::vector<Task> tasks = awaitTasks();
    for (const Task& task : tasks) {
      task();
    }
    runTimers();
    if (tasks.empty()) {
      const Korm::Lock lock{mutex_};
      if (stopped_ && posted_.empty()) {
        return;
      }
    }
  }
}

std::vector<Loop::Task> Loop::awaitTasks() {
  const Korm::Lock lock{mutex_};
  bool due = false;
  while (!stopped_ && posted_.empty() && !due) {
    if (timers_.empty()) {
      wake_.wait(mutex_);
    } else {
      due = wake_.wait_until(mutex_, timers_.begin()->first.first) == std::cv_status::timeout;
    }
  }
  return std::exchange(posted_, {});
}

void Loop::runTimers() {
  if (timers_.empty()) {
    return;
  }
  // Timers that are set meanwhile run in the next turn, so that tasks get to run between them.
  const std::pair last{Clock::now(), lastTimer_};
  while (!timers_.empty()) {
    const auto& [due, id] = timers_.begin()->first;
    if (due > last.first || id > last.second) {
      return;
    }
    dueTimes_.erase(id);
    const Task task = std::move(timers_.extract(timers_.begin()).mapped());
    task();
  }
}

}  // namespace P4rt
