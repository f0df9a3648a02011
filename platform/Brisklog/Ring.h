// The binary trace ring of a process.
//
// A ring holds the newest records of everything that the process traces, in anonymous memory or in
// a named POSIX shared memory segment that other processes read (RingReader.h) at any time, also
// after the owner was killed: nothing is buffered elsewhere.
//
// Thread and process rule: a ring has one owning process. Any number of its threads write at once,
// without waiting for each other: one that is suspended in the middle of a record costs the others
// that record and nothing else.
// Invariant: what has been published is complete. A record under way when its process died is never
// shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/Korm/Segment.h"

namespace Brisklog {

// A ring could not be made or attached; the message names it and says why.
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
  // A ring of that name whose owner is gone is replaced by a fresh one, which leaves the readers of
  // the old one what they have. All memory is allocated here.
  // Throws: RingError if the owner lives, if the segment of that name is not a ring, or if there is
  // not enough memory.
  [[nodiscard]] static std::unique_ptr<Ring> create(const RingOptions& options = {});

  // Removes the name and unmaps the memory. No thread may still be tracing into this ring.
  ~Ring();
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  [[nodiscard]] const std::string& shmName() const noexcept { return shmName_; }
  [[nodiscard]] std::size_t records() const noexcept;

 private:
  friend class RingReader;
  friend struct CurrentRing;

  explicit Ring(const RingOptions& options);
  void removeName() const noexcept;

  const std::string shmName_;
  std::optional<Korm::SegmentName> name_;    // of a named ring
  std::unique_ptr<Korm::Segment> segment_;   // of a named ring
  std::unique_ptr<std::uint64_t[]> memory_;  // of an anonymous one: a forked child has its own
  const std::uint64_t* words_ = nullptr;
  std::unique_ptr<detail::RingWriter> writer_;
};

// The ring that trace points write to. Before a host sets one this makes an anonymous ring, as the
// first trace does. The reference is good until ringIs().
[[nodiscard]] Ring& ring();

// Makes `next` the ring of the process and hands back the one it replaces, null if there was none.
// Another thread may still be inside a trace point: destroy the old ring when that is over. Null:
// the next trace makes an anonymous ring. The ring that is current at exit loses its name then.
[[nodiscard]] std::unique_ptr<Ring> ringIs(std::unique_ptr<Ring> next);

}  // namespace Brisklog
