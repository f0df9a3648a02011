// The binary trace ring of a process.
//
// A ring holds the newest records that the process has traced, in anonymous memory or in a named
// POSIX shared memory segment. Other processes can read a named ring (RingReader.h) at any time,
// even after its owner was killed, because records are not buffered anywhere else.
//
// Threads: a ring has one owning process. Any number of its threads write at once without waiting
// for each other. A thread that is suspended while it writes a record keeps only that record from
// the others.
// Invariant: published records are complete. A record that was being written when its process died
// is never shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/Korm/Segment.h"

namespace Brisklog {

// A ring could not be created or attached. The message names the ring and the reason.
class RingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct RingOptions {
  std::string shmName{};                     // empty: anonymous, seen by this process alone
  std::size_t records = 16384;               // rounded up to a power of two, at least 64
  std::size_t dictionaryBytes = 256 * 1024;  // about 2000 trace points
};

namespace detail {
struct RingWriter;
}  // namespace detail

class Ring {
 public:
  // Creates a ring. It replaces a ring of the same name whose owner has died; readers of the old
  // ring keep what they have mapped. All memory is allocated here.
  // Throws: RingError if the owner lives, if the segment of that name is not a ring, or if there is
  // not enough memory.
  [[nodiscard]] static std::unique_ptr<Ring> create(const RingOptions& options = {});

  // Removes the name, unless keepName() was called, and unmaps the memory.
  // Requires: no thread is tracing into this ring.
  ~Ring();
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  [[nodiscard]] const std::string& shmName() const noexcept { return shmName_; }
  [[nodiscard]] std::size_t records() const noexcept;
  // Keeps the name when this ring is destroyed, so that others can go on reading, as after a crash.
  void keepName() noexcept { name_.reset(); }

 private:
  friend class RingReader;
  friend struct CurrentRing;

  explicit Ring(const RingOptions& options);
  void removeName() const noexcept;

  const std::string shmName_;
  std::optional<Korm::SegmentName> name_;    // of a named ring; what to remove
  std::unique_ptr<Korm::Segment> segment_;   // of a named ring
  std::unique_ptr<std::uint64_t[]> memory_;  // of an anonymous one: a forked child has its own
  const std::uint64_t* words_ = nullptr;
  std::unique_ptr<detail::RingWriter> writer_;
};

// The ring that trace points write to. If the host has not set one, an anonymous ring is created,
// as by the first trace. The reference is valid until ringIs().
[[nodiscard]] Ring& ring();

// Makes `next` the ring of the process and returns the one it replaces, or null. Another thread may
// still be writing to the old ring: destroy it only when that has ended. With null, the next trace
// creates an anonymous ring. The name of the ring that is current at exit is removed at exit.
[[nodiscard]] std::unique_ptr<Ring> ringIs(std::unique_ptr<Ring> next);

}  // namespace Brisklog
