// Catches the signals that ask the process to end.
//
// Threads: construct it on the main thread, before any other thread is started. All threads then
// block these signals, and only the watching thread receives them.
#pragma once

#include <signal.h>

#include <functional>
#include <thread>

namespace P4rt {

class Signals {
 public:
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Starts a thread that calls `ended` at the first SIGTERM, SIGINT or SIGHUP. The second one ends
  // the process with the default action of the signal.
  // Requires: called once.
  void watch(std::function<void()> ended);

 private:
  sigset_t set_;
  std::thread watcher_;
};

}  // namespace P4rt
