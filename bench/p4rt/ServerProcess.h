// An ostra-p4rt in a process of its own, as a controller meets it.
//
// Threads: one thread.
#pragma once

#include <sys/types.h>

#include <string>

namespace P4rtBench {

class ServerProcess {
 public:
  // Starts it on a free port, with the commands of that file.
  // Throws: std::runtime_error when it does not come up.
  ServerProcess(const std::string& program, const std::string& config);
  // Asks it to end, and waits.
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  [[nodiscard]] const std::string& address() const noexcept { return address_; }
  // The processor time that all its threads have taken, in seconds.
  [[nodiscard]] double processorTime() const;
  // Its resident memory, in bytes.
  [[nodiscard]] double memory() const;

 private:
  [[nodiscard]] std::string readAddress(int output) const;

  pid_t id_ = -1;
  std::string address_;
};

}  // namespace P4rtBench
