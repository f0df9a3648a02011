// The named shared memory of a process, from which other processes read the tables and the trace.
// It also records who owns the name, and the few numbers that must survive the process with the
// tables.
//
//   Sim::SharedMemory shared{"demo", Sim::Leftover::resume_};
//   Sim::Service service{&shared};
//
// The name belongs to this process until the object is destroyed or the process ends in any way. A
// process that dies leaves its tables under the name. The next one chooses whether to resume or to
// remove them.
//
// Threads: one process has a name at a time, and within it the activity thread. It is made before
// the tables of its service, sets where they lie (KormVasta::sharedMemoryIs), and outlives them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Brisklog/Ring.h"
#include "platform/Korm/Segment.h"
#include "platform/Vasta/SegmentNames.h"

namespace Sim {

// The last numbers that a service has assigned. They are stored with Vasta::storeWord.
struct GivenNumbers {
  std::uint64_t handle = 0;            // of an entry
  std::uint64_t statusGeneration = 0;  // of a row of status
};

// What to do with the tables of a process that has died.
enum class Leftover {
  refuse_,   // they are an error
  resume_,   // go on with them, or start empty if there are none
  discard_,  // remove them
};

// The name cannot be used; what() says which name and why.
class SharedNameError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// There are tables of a process that has died, and Leftover::refuse_ was given. The program adds to
// what() which of its options resume or remove them.
class LeftoverError : public SharedNameError {
 public:
  using SharedNameError::SharedNameError;
};

// The process that owns the tables of that name, even if it has died; nothing when there are none.
// Throws: std::system_error when the memory of that name cannot be opened.
[[nodiscard]] std::optional<std::uint64_t> processWithTables(const std::string& name);

class SharedMemory {
 public:
  // Throws: SharedNameError when another process has the name; LeftoverError for tables that are to
  // be refused; std::system_error or Brisklog::RingError when the system refuses.
  // Requires: `name` has no fault (SharedNames.h).
  explicit SharedMemory(const std::string& name, Leftover leftover = Leftover::refuse_);
  // Removes the tables, the ring and the name, without allocating. Gives up the name only, and
  // keeps the tables and the ring,
  // - after keep(),
  // - when they belong to another process and no service has resumed them,
  // - when it was made with resume_ and an exception ends the use, so that the next process can
  //   resume what was answered.
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  // Whether there are tables to resume.
  [[nodiscard]] bool resuming() const noexcept { return resuming_; }
  // The numbers in shared memory.
  [[nodiscard]] GivenNumbers& numbers() noexcept { return *numbers_; }
  // Says that the tables are complete. A process that dies before this leaves nothing to resume,
  // unless it was resuming itself.
  void inServiceIs() noexcept;
  // Keeps the tables and the ring when this object is destroyed, so that the next process can
  // resume.
  void keep() noexcept { removes_ = false; }

 private:
  void takeName();
  // Examines what the previous owner of the name has left.
  void inspect();
  void removeTables() const;
  void release() noexcept;

  const std::string name_;
  const Korm::SegmentName segmentName_;
  const std::vector<Vasta::SegmentNames> tables_;  // made before there is anything to remove
  const Leftover leftover_;
  std::unique_ptr<Korm::Segment> segment_;
  GivenNumbers* numbers_ = nullptr;
  Brisklog::Ring* ring_ = nullptr;  // the process's
  bool resuming_ = false;
  bool removes_ = false;
};

}  // namespace Sim
