// Reading a trace ring, from the process that writes it or from any other one.
//
// The reader needs only the ring, and neither symbols nor memory of the program that traces. It
// maps the segment read-only. Readers and writers never wait for each other.
//
// Threads: a reader belongs to one thread; there may be any number of readers.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Brisklog/Ring.h"
#include "platform/Brisklog/RingLayout.h"

namespace Brisklog {

// A record in readable form.
struct DecodedRecord {
  std::uint64_t number = 0;  // position in the order of writing; some may be left unused
  double time = 0;  // seconds since 1970-01-01 00:00:00 UTC, or as the host's own clock had it
  int level = 0;
  std::string unit;
  int line = 0;
  std::string handle;
  std::string scope;
  std::string function;
  std::string format;
  std::vector<std::string> arguments;  // one that was cut ends in "..."

  // False if the ring does not describe the trace point, because its dictionary is full or because
  // the process died while it entered the point. Unit and function are "?" then.
  bool described = true;

  // The same text as in the text trace.
  [[nodiscard]] std::string text() const;
  // "<time> <level> <unit>:<line> <text>" in one line of printable characters.
  [[nodiscard]] std::string printedLine() const;
};

// How far a reader has come. A new cursor is at the oldest record of whatever ring it is used with.
struct RingCursor {
  std::uint64_t instance = 0;  // the ring that `next` counts in
  std::uint64_t next = 0;
  // Records that were overwritten or abandoned before they could be read, and record numbers that
  // were skipped because a suspended writer still held the slot.
  std::uint64_t lost = 0;
};

class RingReader {
 public:
  enum class Owner {
    alive_,
    gone_,      // died or closed the ring: no more records will come
    replaced_,  // another segment has the name now: attach again
  };

  // Throws: RingError if there is no such segment or if it is not a ring of this layout.
  [[nodiscard]] static RingReader attach(const std::string& shmName);
  // Reads a ring of this process, which must outlive the reader.
  [[nodiscard]] static RingReader attach(const Ring& ring);

  ~RingReader();
  RingReader(RingReader&&) noexcept;
  RingReader& operator=(RingReader&&) noexcept;

  // The newest complete records, at most `count`, oldest first.
  [[nodiscard]] std::vector<DecodedRecord> newest(std::size_t count);

  // Returns the records since the cursor, oldest first, and moves the cursor past them; at most as
  // many as the ring holds. It stops at a record that is still being written, until that record is
  // complete, its process has died, or half a ring has been written since. A cursor of another
  // ring, or one beyond the newest record, starts over at the oldest record.
  [[nodiscard]] std::vector<DecodedRecord> follow(RingCursor& cursor);

  [[nodiscard]] Owner owner() const;
  [[nodiscard]] pid_t ownerProcess() const noexcept;
  [[nodiscard]] std::size_t records() const noexcept { return recordCount_; }

 private:
  struct RawRecord;
  struct PointText {
    int level = 0;
    int line = 0;
    std::string scope;
    std::string function;
    std::string format;
    std::string unit;
    std::string handle;
  };

  RingReader(std::string shmName, std::unique_ptr<Korm::Segment> segment, const detail::Word* base);

  [[nodiscard]] const detail::Word* slot(detail::Word ticket) const noexcept;
  [[nodiscard]] bool copy(detail::Word ticket, RawRecord& raw) const noexcept;
  [[nodiscard]] bool holds(std::size_t slot, detail::Word sequence) const noexcept;
  [[nodiscard]] detail::Word end() const noexcept;
  [[nodiscard]] bool abandoned(detail::Word ticket, detail::Word end) const;
  [[nodiscard]] DecodedRecord decode(const RawRecord& raw);
  [[nodiscard]] double decodeTime(const RawRecord& raw) const noexcept;
  [[nodiscard]] const PointText* point(std::uint32_t id);
  [[nodiscard]] bool readPoint(std::uint32_t id, PointText& point) const;

  std::string shmName_;
  std::unique_ptr<Korm::Segment> segment_;  // null for a ring of this process

  const detail::Word* header_;
  const detail::Word* records_;
  const detail::Word* dictionary_;
  std::size_t recordCount_;
  std::size_t dictionaryWords_;

  // A cache of the dictionary, whose entries never change.
  std::unordered_map<std::uint32_t, PointText> points_;
};

}  // namespace Brisklog
