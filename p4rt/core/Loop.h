// The activity thread's loop: runs what other threads post to it, and timers.
//
// Thread and process rule: post() and stop() may be called from any thread, and never wait for the
// work under way; the rest belongs to the thread that calls run(). Not from a signal handler.
// Ownership: the loop owns the tasks. Those that wait when it is destroyed are destroyed with it,
// unrun.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "p4rt/Timers.h"

namespace P4rt {

class Loop final : public Timers {
 public:
  using Task = std::function<void()>;

  // Runs the task later on the loop's thread. Tasks run in the order in which they were posted.
  void post(Task task);
  // Makes run() return when nothing is left that was posted.
  void stop();

  Id after(std::chrono::milliseconds delay, Task task) override;
  void cancel(Id timer) override;

  // Runs tasks and timers until stop(). An exception that leaves one of them leaves here.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  // What has been posted, once there is some or a timer is due or the loop is to stop.
  [[nodiscard]] std::vector<Task> awaitTasks();
  void runTimers();

  // Shared by all threads.
  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<Task> posted_;
  bool stopped_ = false;

  // The loop's thread.
  std::map<std::pair<Clock::time_point, Id>, Task> timers_;
  std::map<Id, Clock::time_point> dueTimes_;  // of those timers
  Id lastTimer_ = 0;
};

}  // namespace P4rt
