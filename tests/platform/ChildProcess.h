// A process of a test: it does one thing, and then ends or is killed.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/Testing.h"

// Waits a minute at the most.
inline void waitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{60};
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds{100});
  }
}

// Fails when its work throws or fails an expectation.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<void()>& work) : id_{::fork()} {
    if (id_ == 0) {
      try {
        work();
      } catch (const std::exception& error) {
        std::fprintf(stderr, "process %d: %s\n", static_cast<int>(::getpid()), error.what());
        ::_exit(1);
      }
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
  }
  ~ChildProcess() {
    if (id_ > 0) {
      kill();
    }
  }
  ChildProcess(ChildProcess&& other) noexcept : id_{std::exchange(other.id_, -1)} {}
  ChildProcess& operator=(ChildProcess&&) = delete;

  // Whether it had not failed before it was killed.
  bool kill() {
    ::kill(id_, SIGKILL);
    return WIFSIGNALED(wait());
  }
  // Whether it ended well by itself.
  bool join() {
    const int status = wait();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  [[nodiscard]] pid_t id() const { return id_; }

 private:
  int wait() {
    int status = 0;
    ::waitpid(std::exchange(id_, -1), &status, 0);
    return status;
  }

  pid_t id_;
};
