// The loop of the activity thread. It runs timers, and the tasks that other threads post to it.
//
// Threads: post() and stop() may be called from any thread, though not from a signal handler. They
// do not wait for the task that is running. Everything else belongs to the thread that calls run().
// Ownership: the loop owns its tasks. Tasks that have not run are destroyed with it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "p4rt/Timers.h"
#include "platform/Korm/Mutex.h"

namespace P4rt {

class Loop final : public Timers {
 public:
  using Task = std::function<void()>;

  // Runs the task later on the loop's thread. Tasks run in the order of posting.
  void post(Task task);
  // Makes run() return once all posted tasks have run.
  void stop();

  Id after(std::chrono::milliseconds delay, Task task) override;
  void cancel(Id timer) override;

  // Runs tasks and timers until stop(). Passes on an exception that leaves one of them.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  // Waits for a posted task, a due timer or stop(). Returns the posted tasks.
  [[nodiscard]] std::vector<Task> awaitTasks();
  void runTimers();

  // Shared by all threads.
  Korm::Mutex mutex_;
  std::condition_variable_any wake_;
  std::vector<Task> posted_ KORM_GUARDED_BY(mutex_);
  bool stopped_ KORM_GUARDED_BY(mutex_) = false;

  // The loop's thread.
  std::map<std::pair<Clock::time_point, Id>, Task> timers_;
  std::map<Id, Clock::time_point> dueTimes_;  // of the timers above
  Id lastTimer_ = 0;
};

}  // namespace P4rt
