// Reading a trace ring, from the process that writes it or from any other one.
//
// The reader needs nothing but the ring: no symbols and no memory of the program that traces. It
// maps the segment read-only and never waits: not for a writer, alive or dead, nor does any writer
// wait for it.
//
// Thread and process rule: a reader belongs to one thread; there may be any number of readers.
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

  // False if the ring does not describe the trace point: its dictionary is full, or the point was
  // being entered when the process died. Unit and function are "?" then.
  bool described = true;

  // As the text trace has it.
  [[nodiscard]] std::string text() const;
  // "<time> <level> <unit>:<line> <text>" in one line of printable characters.
  [[nodiscard]] std::string printedLine() const;
};

// The records that were not seen yet. A fresh one stands at the oldest record of any ring.
struct RingCursor {
  std::uint64_t instance = 0;  // the ring that `next` counts in
  std::uint64_t next = 0;
  // Records that were overwritten or abandoned before they could be read. Numbers that writers left
  // unused because of a suspended one count too.
  std::uint64_t lost = 0;
};

class RingReader {
 public:
  enum class Owner {
    alive_,
    gone_,      // died, or let go of the ring: no more records will come
    replaced_,  // its name now belongs to another segment: attach again
  };

  // Throws RingError if there is no such segment or if it is not a ring of this layout.
  [[nodiscard]] static RingReader attach(const std::string& shmName);
  // Reads a ring of this process, which must outlive the reader.
  [[nodiscard]] static RingReader attach(const Ring& ring);

  ~RingReader();
  RingReader(RingReader&&) noexcept;
  RingReader& operator=(RingReader&&) noexcept;

  // The newest complete records, at most `count`, oldest first.
  [[nodiscard]] std::vector<DecodedRecord> newest(std::size_t count);

  // The records since the cursor, oldest first, at most a ringful, and moves the cursor past them.
  // A record that is being written holds back the ones behind it until it is complete, its process
  // is gone or half a ring has been written since. A cursor of another ring, or one that lies
  // beyond the newest record, starts over at the oldest record.
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

  // Entries never change, so that what has been read once stays good.
  std::unordered_map<std::uint32_t, PointText> points_;
};

}  // namespace Brisklog
