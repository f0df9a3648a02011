// The named shared memory of a process: what another one reads the tables and the trace from, who
// has the name, and the few words that have to outlive the process beside the tables.
//
//   Sim::SharedMemory shared{"demo", Sim::Leftover::resume_};
//   Sim::Service service{&shared};
//
// From construction on the name belongs to this process, until the object goes or the process ends,
// however it ends. A process that dies leaves its tables under the name; the next one says whether
// it goes on with them or removes them.
//
// Thread and process rule: one process has a name at a time, and within it the activity thread. It
// is made before the tables of its service, sets where they lie (KormVasta::sharedMemoryIs), and
// outlives them.
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

// The last numbers that a service gave out. They go up by Vasta::storeWord.
struct GivenNumbers {
  std::uint64_t handle = 0;            // of an entry
  std::uint64_t statusGeneration = 0;  // of a row of status
};

// What to do with the tables that a process left which is gone.
enum class Leftover {
  refuse_,   // they are an error
  resume_,   // go on with them; where there are none, start empty
  discard_,  // remove them
};

// The name cannot be had; what() names it and says why.
class SharedNameError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// There are tables of a process that is gone, and they are to be refused. The program adds to
// what() which of its options go on with them or remove them.
class LeftoverError : public SharedNameError {
 public:
  using SharedNameError::SharedNameError;
};

// The process whose tables stand under the name, also when it is gone; nothing where there are
// none. Throws: std::system_error when what has the name cannot be opened.
[[nodiscard]] std::optional<std::uint64_t> processWithTables(const std::string& name);

class SharedMemory {
 public:
  // Throws: SharedNameError when another process has the name, or when there are tables and they
  // are to be refused; std::system_error or Brisklog::RingError when the system refuses.
  // Requires: `name` has no fault (SharedNames.h).
  explicit SharedMemory(const std::string& name, Leftover leftover = Leftover::refuse_);
  // Removes the tables, the ring and the name, without allocating. It keeps the tables and the
  // ring, and gives up the name only,
  // - after keep(),
  // - where the tables are another process's which no service has gone on with,
  // - made with resume_, where an exception ends the use: the next one resumes what was answered.
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  // Whether there are tables to go on with.
  [[nodiscard]] bool resuming() const noexcept { return resuming_; }
  // In shared memory.
  [[nodiscard]] GivenNumbers& numbers() noexcept { return *numbers_; }
  // The tables are complete, from now on they are worth something: a process that dies before this
  // leaves nothing to go on with unless it was resuming.
  void inServiceIs() noexcept;
  // The tables and the ring stay when this object goes, for a next process to resume.
  void keep() noexcept { removes_ = false; }

 private:
  void takeName();
  // Looks at what the last owner of the name has left.
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
