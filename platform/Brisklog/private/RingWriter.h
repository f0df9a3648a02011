// The writing side of a ring: claiming records, the dictionary, the clock. Private to Brisklog.
//
// Threads: any thread. Writers claim records without waiting for each other. Entering a trace point
// in the dictionary and renewing the clock's calibration take a lock of the process.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/Brisklog/RingLayout.h"
#include "platform/Brisklog/TracePoint.h"
#include "platform/Brisklog/private/TraceClock.h"

namespace Brisklog::detail {

struct RingWriter {
  // Formats a ring in zeroed memory and makes it visible to readers.
  RingWriter(Word* memory, std::size_t recordCount, std::size_t dictionaryWords);

  // Stands for a ring that does not exist yet: no trace point is registered with it.
  constexpr RingWriter() noexcept : generation(~std::uint32_t{0}) {}

  [[nodiscard]] ClaimedRecord claim() noexcept;
  [[nodiscard]] Word now() noexcept;

  // The id of a new dictionary entry for the point, 0 when the dictionary is full.
  [[nodiscard]] std::uint32_t enter(const TracePoint& point) noexcept;

  void calibrate() noexcept;

  // Constant after construction.
  const std::uint32_t generation;  // differs between any two rings of the process
  Word* header = nullptr;
  Word* records = nullptr;
  Word* dictionary = nullptr;
  Word ticketMask = 0;
  bool usesTicks = false;

  std::atomic<std::uint64_t> calibrationDue = 0;  // ticks
};

// The writer of the current ring, never null.
extern constinit std::atomic<RingWriter*> currentWriter;

// A trace point's place in the dictionary of one particular ring.
struct Registration {
  RingWriter* writer;
  std::uint64_t word;  // as TracePoint keeps it
};

// Enters the point into the current ring, which is created if need be. The writer is null when
// there is no memory for a ring.
[[nodiscard]] Registration registerPoint(const TracePoint& point,
                                         std::atomic<std::uint64_t>& registration) noexcept;

}  // namespace Brisklog::detail
