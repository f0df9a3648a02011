// How a trace ring lies in memory: what its writers and its readers agree on. For Brisklog's own
// use.
//
//   header      one page of 64-bit words, see HeaderWord
//   records     a power of two of records of 128 bytes
//   dictionary  entries, each the description of a trace point, appended and never changed
//
// Every word is accessed through shared(). Payload words are stored with release and loaded with
// acquire, so a reader that sees one word of a later writer also sees the later sequence word. All
// values are in the machine's own byte order, because a ring is read on the machine that wrote it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Brisklog/Argument.h"
#include "platform/Korm/Segment.h"

namespace Brisklog::detail {

using Word = std::uint64_t;

// The name of the ring in messages, and the name of its segment in the system.
[[nodiscard]] inline std::string ringSubject(const std::string& shmName) {
  return shmName.empty() ? "trace ring" : "trace ring '" + shmName + "'";
}
[[nodiscard]] inline Korm::SegmentName ringSegmentName(const std::string& shmName) {
  return Korm::SegmentName{shmName.front() == '/' ? shmName : '/' + shmName};
}

[[nodiscard]] inline std::atomic_ref<Word> shared(Word& word) noexcept {
  return std::atomic_ref<Word>(word);
}

// For a reader, whose mapping is read-only.
[[nodiscard]] inline Word loadShared(const Word& word) noexcept {
  return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_acquire);
}

inline void storeShared(Word& word, Word value) noexcept {
  shared(word).store(value, std::memory_order_release);
}

// Each word that writers change has a cache line of its own.
enum HeaderWord : std::size_t {
  magicWord = 0,  // stored last: until then the segment is not ready
  layoutWord = 1,
  instanceWord = 2,  // tells this ring from every other one of the same name
  ownerWord = 3,     // process id
  recordCountWord = 4,
  dictionaryWordsWord = 5,
  headWord = 8,             // a guess at the next free ticket; the slots decide
  dictionaryUsedWord = 16,  // words of the dictionary that have been allocated
  clockVersionWord = 24,    // the lowest bit selects the cell of the valid calibration
  clockCellsWord = 25,  // two cells of {ticks, nanoseconds since the epoch, nanoseconds per tick}
};
constexpr std::size_t clockCellWords = 3;
constexpr std::size_t headerWords = 512;

constexpr Word ringMagic = 0x676f6c6b73697242;  // "Brisklog"

// A record. Its sequence word says which ticket it holds and whether the record is complete:
// 0 means never written, 2t+1 that ticket t is being written, 2t+2 that ticket t is complete.
constexpr std::size_t recordWords = 16;
constexpr std::size_t sequenceWord = 0;
constexpr std::size_t timeWord = 1;
constexpr std::size_t controlWord = 2;  // dictionary id, flags (bit 32 on), kinds (bit 40 on)
constexpr std::size_t payloadWord = 3;
constexpr std::size_t payloadWords = recordWords - payloadWord;

constexpr unsigned flagsShift = 32;
constexpr unsigned kindsShift = 40;
constexpr unsigned kindBits = 3;
constexpr std::size_t maxArguments = (64 - kindsShift) / kindBits;
constexpr Word timeIsTicks = 1;  // flag: the time is a tick count, otherwise the bits of a double

// Text and bytes begin with one byte that holds their stored length and, in its top bit, whether
// something was cut off; they fill whole words.
constexpr unsigned cutMark = 0x80;

[[nodiscard]] constexpr Word sequenceWriting(Word ticket) noexcept { return 2 * ticket + 1; }
[[nodiscard]] constexpr Word sequenceComplete(Word ticket) noexcept { return 2 * ticket + 2; }
[[nodiscard]] constexpr bool isWriting(Word sequence) noexcept { return (sequence & 1) != 0; }
[[nodiscard]] constexpr Word ticketOf(Word sequence) noexcept { return (sequence - 1) / 2; }

// A dictionary entry. Its id is its offset in words. No entry has the id 0, which means that the
// dictionary was full when the point was to be entered.
constexpr std::size_t entrySizeWord = 0;     // words of the entry, stored last; 0: not valid yet
constexpr std::size_t entryPlaceWord = 1;    // level << 32 | line
constexpr std::size_t entryLengthsWord = 2;  // scope, function, format, unit: 16 bits each
constexpr std::size_t entryHandleWord = 3;   // length of the handle's name
constexpr std::size_t entryTextWord = 4;     // the five texts, one after the other
constexpr std::size_t maxEntryText = 4095;   // bytes of one text

// The size of a whole ring.
[[nodiscard]] constexpr std::size_t ringBytes(std::size_t recordCount,
                                              std::size_t dictionaryWords) noexcept {
  return (headerWords + recordCount * recordWords + dictionaryWords) * sizeof(Word);
}

// A hash of the layout: it changes when the layout does, so that a program does not misread the
// ring of another build.
constexpr Word ringLayout = [] {
  Word hash = 0xcbf29ce484222325;
  for (const Word part :
       {Word{1}, Word{recordWords}, Word{payloadWord}, Word{kindsShift}, Word{kindBits},
        Word{headerWords}, Word{clockCellsWord}, Word{entryTextWord}, Word{maxEntryText}}) {
    hash = (hash ^ part) * 0x100000001b3;
  }
  return hash;
}();

static_assert(std::atomic_ref<Word>::is_always_lock_free);
static_assert(payloadWords * sizeof(Word) - 1 < cutMark);
static_assert(payloadWords >= maxArguments, "every argument has at least one word");

}  // namespace Brisklog::detail
