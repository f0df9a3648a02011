// The shared format: where everything lies in the segments of a table, and how a word is accessed.
//
// A table is three kinds of segments:
// - the header: the words of `Header` below;
// - the rows: a spare cell, and then the rows, each a version word and a cell; row n never moves;
// - the index, one segment per generation: see Index.h.
//
// A cell is {record words, live, checksum}. The upper half of the live word is the number of record
// words that are stored; its lowest bit says whether there is a record. The version is the change
// sequence of the row's latest change and, as its lowest bit, which cell is in force: the row's own
// one or the spare one. Version 0 means that the row was never written.
//
// To change a row, the writer fills the spare cell, sets the version to the spare cell, copies the
// spare cell to the row's own one, and sets the version to that one. A row that was never written
// is filled first and then gets its version. So the change is made by one store, and a writer that
// dies at any instant leaves either the previous record or the new one. The next writer finishes
// the copy. A reader copies the cell in force and then reads the version again. If it is unchanged,
// the copy is the record, because the writer changes a cell only after it has moved the version
// away from it, and no change has the version of another.
//
// No reader trusts these words. The version and the counters of the header are checked words, a
// cell has its checksum, and everything constant is compared with what the reader expects.
//
// Every word that two threads or processes may share is read by loadWord (acquire) and written by
// storeWord (release): a reader that sees a word also sees everything stored before it.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/Korm/Hash.h"
#include "platform/Vasta/Record.h"

namespace Vasta {

[[nodiscard]] inline std::uint64_t loadWord(const std::uint64_t& word) noexcept {
  return std::atomic_ref<std::uint64_t>{const_cast<std::uint64_t&>(word)}.load(
      std::memory_order_acquire);
}

inline void storeWord(std::uint64_t& word, std::uint64_t value) noexcept {
  std::atomic_ref<std::uint64_t>{word}.store(value, std::memory_order_release);
}

inline constexpr std::size_t wordSize = sizeof(std::uint64_t);
inline constexpr std::uint64_t tableMagic = 0x5641'5354'4154'424CU;
inline constexpr std::uint64_t formatVersion = 3;

// A number below 2^48 with a check in the upper 16 bits of its word, which detects any single
// flipped bit. The word of 0 is 0, as in fresh memory.
inline constexpr std::uint64_t checkedNumberMask = (std::uint64_t{1} << 48U) - 1;
[[nodiscard]] constexpr std::uint64_t checkedWord(std::uint64_t number) noexcept {
  return number | ((number * 0x9E3779B97F4A7C15U) & ~checkedNumberMask);
}
// Nothing when the word is damaged.
[[nodiscard]] constexpr std::optional<std::uint64_t> checkedNumber(std::uint64_t word) noexcept {
  const std::uint64_t number = word & checkedNumberMask;
  return checkedWord(number) == word ? std::optional{number} : std::nullopt;
}

// Word offsets in the header segment. Words that change at different rates lie in different cache
// lines, so that a write does not invalidate the lines that a look-up reads.
namespace Header {
// Constant once the table is there. The magic is stored last of all.
inline constexpr std::size_t magic_ = 0;
inline constexpr std::size_t formatVersion_ = 1;
inline constexpr std::size_t layoutHash_ = 2;
inline constexpr std::size_t recordSize_ = 3;
inline constexpr std::size_t keyOffset_ = 4;
inline constexpr std::size_t keySize_ = 5;
inline constexpr std::size_t identity_ = 6;  // of the rows segment
// Seldom changed. Every number from here on is a checked word.
inline constexpr std::size_t writerGeneration_ = 8;  // counts the writers so far
inline constexpr std::size_t indexGeneration_ = 9;   // the generation in force
inline constexpr std::size_t removed_ = 10;          // removedMark once the table is removed
// Changed when the table grows.
inline constexpr std::size_t rowCount_ = 16;
// Changed by every write.
inline constexpr std::size_t changeSequence_ = 24;  // of the latest change
inline constexpr std::size_t size_ = 25;            // live records
inline constexpr std::size_t words_ = 32;
}  // namespace Header

inline constexpr std::uint64_t removedMark = 0x5641'5354'4147'4F4EU;
inline constexpr std::size_t headerBytes = Header::words_ * wordSize;
inline constexpr std::size_t rowsReservation = std::size_t{64} << 30U;

// The sizes of a record, a cell and a row, and where they lie in the rows segment.
struct RowGeometry {
  RowGeometry(std::uint32_t recordBytes, std::uint32_t keyStart, std::uint32_t keyBytes) noexcept;

  std::uint32_t recordSize;   // bytes
  std::uint32_t keyOffset;    // bytes
  std::uint32_t keySize;      // bytes
  std::uint32_t recordWords;  // the last one filled up with zeros
  std::uint32_t cellWords;
  std::uint32_t firstRow;  // words from the start of the segment, where the spare cell is
  std::uint32_t rowWords;  // this and `firstRow` are whole numbers of cache lines

  [[nodiscard]] std::size_t liveWord() const noexcept { return recordWords; }
  [[nodiscard]] std::size_t checksumWord() const noexcept { return recordWords + 1; }
  [[nodiscard]] static std::uint64_t makeLiveWord(std::size_t storedWords, bool live) noexcept {
    return std::uint64_t{storedWords} << 32U | (live ? 1U : 0U);
  }
  [[nodiscard]] static bool isLive(std::uint64_t live) noexcept { return (live & 1U) != 0; }
  // As many as the live word says, but never more than the record has.
  [[nodiscard]] std::size_t storedWords(std::uint64_t live) const noexcept {
    return std::min<std::uint64_t>(live >> 32U, recordWords);
  }
  [[nodiscard]] std::size_t rowOffset(std::size_t row) const noexcept {  // in words
    return firstRow + row * rowWords;
  }
  [[nodiscard]] std::size_t bytesForRows(std::size_t rows) const noexcept {
    return rowOffset(rows) * wordSize;
  }
  // How many rows a segment of this size has room for.
  [[nodiscard]] std::size_t rowsWithin(std::size_t bytes) const noexcept {
    const std::size_t words = bytes / wordSize;
    return words < firstRow ? 0 : (words - firstRow) / rowWords;
  }
};

// The number in a row's version word.
namespace Version {
// No table gets that far, so a larger number is damage.
inline constexpr std::uint64_t maximumSequence = checkedNumberMask >> 2U;
[[nodiscard]] constexpr std::uint64_t of(std::uint64_t sequence, bool inSpareCell) noexcept {
  return sequence << 1U | (inSpareCell ? 1U : 0U);
}
[[nodiscard]] constexpr bool isInSpareCell(std::uint64_t version) noexcept {
  return (version & 1U) != 0;
}
// The change sequence of the row's latest change.
[[nodiscard]] constexpr std::uint64_t sequence(std::uint64_t version) noexcept {
  return (version & checkedNumberMask) >> 1U;
}
}  // namespace Version

// The right value of a cell's checksum word: a hash of its other words, without the record words
// that are not stored. The seed is the row's number and its latest change, so that a record in the
// wrong row is detected too. Requires: nobody writes to `cell` meanwhile.
[[nodiscard]] inline std::uint64_t cellChecksum(const std::uint64_t* cell, std::uint32_t row,
                                                std::uint64_t sequence,
                                                const RowGeometry& geometry) noexcept {
  const std::uint64_t place = (sequence * 0x9E3779B97F4A7C15U) ^ row;
  const std::size_t stored = geometry.storedWords(cell[geometry.liveWord()]);
  if (stored == geometry.recordWords) {  // the usual case takes one call
    return Korm::hashBytes(cell, geometry.checksumWord() * wordSize, place);
  }
  const std::uint64_t ofRecord = Korm::hashBytes(cell, stored * wordSize, place);
  return Korm::hashBytes(cell + geometry.liveWord(),
                         (geometry.checksumWord() - geometry.liveWord()) * wordSize, ofRecord);
}

// The cell that a version selects; `rows` is the start of the rows segment.
[[nodiscard]] inline const std::uint64_t* cellOf(const std::uint64_t* rows, std::uint32_t row,
                                                 std::uint64_t version,
                                                 const RowGeometry& geometry) noexcept {
  return Version::isInSpareCell(version) ? rows : rows + geometry.rowOffset(row) + 1;
}

enum class RowState { vacant_, removed_, live_, corrupt_ };

// The state of a row by its version word and the cell that the version selects.
struct RowCheck {
  RowState state;
  std::uint64_t stored = 0;    // of a corrupt row: its check as stored
  std::uint64_t computed = 0;  // and as it should be
};

// Requires: nobody writes to `cell` meanwhile.
[[nodiscard]] inline RowCheck checkRow(const std::uint64_t* cell, std::uint32_t row,
                                       std::uint64_t versionWord,
                                       const RowGeometry& geometry) noexcept {
  if (versionWord == 0) {
    return {.state = RowState::vacant_};
  }
  const std::uint64_t version = versionWord & checkedNumberMask;
  if (checkedWord(version) != versionWord) [[unlikely]] {
    return {RowState::corrupt_, versionWord, checkedWord(version)};
  }
  const std::uint64_t stored = cell[geometry.checksumWord()];
  const std::uint64_t computed = cellChecksum(cell, row, Version::sequence(version), geometry);
  if (stored != computed) [[unlikely]] {
    return {RowState::corrupt_, stored, computed};
  }
  return {.state = RowGeometry::isLive(cell[geometry.liveWord()]) ? RowState::live_
                                                                  : RowState::removed_};
}

// A hash of the layout. It differs between programs that would read the same bytes differently.
[[nodiscard]] std::uint64_t layoutHash(const RecordLayout& layout);

// Throws: AttachError unless `header` is a table's header in this format for this layout.
void checkHeader(const std::uint64_t* header, std::size_t headerSize, const RecordLayout& expected,
                 const std::string& table);

// A counter of the header. Throws: AttachError when it is damaged.
[[nodiscard]] std::uint64_t headerCounter(const std::uint64_t* header, std::size_t word,
                                          const std::string& table);

}  // namespace Vasta
