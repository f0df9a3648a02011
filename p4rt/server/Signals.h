// The signals that ask the process to end.
//
// Thread and process rule: made on the main thread, before there is another one, so that no other
// thread gets the signals.
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

  // Calls `ended`, on a thread of its own, at the first SIGTERM, SIGINT or SIGHUP. A second one
  // ends the process as if nobody had waited for it. Requires: called once.
  void watch(std::function<void()> ended);

 private:
  sigset_t set_;
  std::thread watcher_;
};

}  // namespace P4rt
