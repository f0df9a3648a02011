#include "platform/Vasta/TableReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Korm/Prefetch.h"
#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

// Bytes of each cell: the processor follows by itself from there.
constexpr std::size_t longestPrefetch = 512;

std::shared_ptr<Segment> openHeader(SegmentSource& source, const RecordLayout* layout) {
  std::shared_ptr<Segment> header = source.header();
  if (header == nullptr) {
    throw AttachError{AttachFailure::missing, source.name(), "there is no such table"};
  }
  checkHeader(header->words(), header->size(), layout, source.name());
  return header;
}

RowGeometry geometryOf(const Segment& header) {
  const auto word = [&header](std::size_t offset) {
    return static_cast<std::uint32_t>(loadWord(header.words()[offset]));
  };
  return {word(Header::recordSize_), word(Header::keyOffset_), word(Header::keySize_)};
}

}  // namespace

TableReader::TableReader(std::string shmName, const RecordLayout& layout)
    : TableReader{std::make_shared<NamedSegments>(std::move(shmName)), &layout} {}

TableReader::TableReader(std::string shmName)
    : TableReader{std::make_shared<NamedSegments>(std::move(shmName)), nullptr} {}

TableReader::TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout& layout)
    : TableReader{std::move(source), &layout} {}

TableReader::TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout* layout)
    : source_{std::move(source)},
      header_{openHeader(*source_, layout)},
      geometry_{geometryOf(*header_)},
      prefetchedBytes_{std::min(geometry_.cellWords * wordSize, longestPrefetch)},
      cell_(geometry_.cellWords) {
  attachRows();
  refreshIndex();
}

void TableReader::attachRows() {
  // The writer allocates rows before it counts them, so there are at least as many as are counted.
  rows_ = source_->rows(geometry_.bytesForRows(header(Header::rowCount_)));
  if (rows_ == nullptr || rows_->identity() != header(Header::identity_)) {
    throw AttachError{AttachFailure::missing, source_->name(),
                      "its rows are missing, or were removed while it was being attached"};
  }
}

std::uint64_t TableReader::header(std::size_t word) const noexcept {
  return loadWord(header_->words()[word]);
}

bool TableReader::refreshIndex() {
  for (std::uint64_t inForce = header(Header::indexGeneration_); inForce != generation_;) {
    std::uint64_t generation = inForce;
    if (std::shared_ptr<Segment> segment = source_->index(generation)) {
      // Within the writer's process the next index can be had a moment before it is announced.
      if (generation == generation_) {
        return false;
      }
      indexView_ = IndexView{*segment, generation, header(Header::identity_), source_->name()};
      index_ = std::move(segment);
      generation_ = generation;
      return true;
    }
    // It must have been replaced, or else it has gone with the table.
    const std::uint64_t tried = inForce;
    inForce = header(Header::indexGeneration_);
    if (inForce == tried) {
      throw AttachError{AttachFailure::missing, source_->name(),
                        isRemoved() ? "it was removed" : "its index is missing"};
    }
  }
  return false;
}

// To wait for the version before the cell is fetched would cost a second trip to memory.
void TableReader::prefetch(std::uint32_t row) const {
  const auto* words = rowWords(row);
  Korm::prefetch(words, prefetchedBytes_);
  Korm::prefetch(words + geometry_.secondCell, prefetchedBytes_);
}

const std::uint64_t* TableReader::rowWords(std::uint32_t row) const {
  const std::size_t end = geometry_.bytesForRows(std::size_t{row} + 1);
  if (end > rows_->mapped()) {
    throwSystemError(ENOMEM, source_->name(), "read a row beyond the address space granted");
  }
  return rows_->words() + std::size_t{row} * geometry_.rowWords;
}

TableReader::RowState TableReader::copyRow(std::uint32_t row) {
  const std::uint64_t* words = rowWords(row);
  std::uint64_t version = 0;
  std::size_t stored = 0;
  for (;;) {
    version = loadWord(words[0]);
    if (version == 0) {
      return RowState::vacant_;
    }
    const std::uint64_t* cell = cellOf(words, version, geometry_);
    stored = geometry_.storedWords(loadWord(cell[geometry_.liveWord()]));
    for (std::size_t i = 0; i < stored; ++i) {
      cell_[i] = loadWord(cell[i]);
    }
    used_ = std::max(used_, stored);
    for (std::size_t i = geometry_.liveWord(); i < geometry_.cellWords; ++i) {
      cell_[i] = loadWord(cell[i]);
    }
    if (loadWord(words[0]) == version) {
      break;
    }
  }
  std::fill_n(cell_.begin() + static_cast<std::ptrdiff_t>(stored), used_ - stored, 0);
  used_ = stored;
  const std::uint64_t expected = cell_[geometry_.checksumWord()];
  const std::uint64_t computed = cellChecksum(cell_.data(), row, version, geometry_);
  if (expected != computed) [[unlikely]] {
    throw Corruption{source_->name(), row, expected, computed};
  }
  return RowGeometry::isLive(cell_[geometry_.liveWord()]) ? RowState::live_ : RowState::removed_;
}

bool TableReader::lookUp(const void* key, std::uint32_t hash) {
  const auto* copiedKey = reinterpret_cast<const std::byte*>(cell_.data()) + geometry_.keyOffset;
  return indexView_
      .find(hash,
            [&](std::uint32_t row) {
              // An entry is written after its row is counted, so this is not a row too new to see.
              if (row >= header(Header::rowCount_)) [[unlikely]] {
                return false;
              }
              prefetch(row);
              return copyRow(row) == RowState::live_ &&
                     std::memcmp(copiedKey, key, geometry_.keySize) == 0;
            })
      .has_value();
}

bool TableReader::find(const void* key, std::uint32_t hash, std::byte* record) {
  refreshIndex();
  do {
    if (lookUp(key, hash)) {
      std::memcpy(record, cell_.data(), geometry_.recordSize);
      return true;
    }
    // A miss counts only in the index that was in force all the time.
  } while (refreshIndex());
  return false;
}

bool TableReader::next(Hint& hint, std::byte* record) {
  while (hint.row < header(Header::rowCount_)) {
    if (copyRow(hint.row++) == RowState::live_) {
      std::memcpy(record, cell_.data(), geometry_.recordSize);
      return true;
    }
  }
  return false;
}

FollowResult TableReader::follow(FeedCursor& cursor, Follower& follower) {
  FollowResult result;
  const std::uint64_t currentEpoch = epoch();
  result.writerChanged = cursor.epoch != 0 && cursor.epoch != currentEpoch;
  cursor.epoch = currentEpoch;
  const std::uint64_t end = changeSequence();
  if (cursor.scanEnd != 0 || !followFeed(cursor, end, follower, result)) {
    if (cursor.scanEnd == 0) {
      cursor.scanEnd = end;
      cursor.scanRow = 0;
    }
    result.fellBehind = true;
    followRows(cursor, follower, result);
  }
  return result;
}

bool TableReader::followFeed(FeedCursor& cursor, std::uint64_t end, Follower& follower,
                             FollowResult& result) {
  const std::uint64_t capacity = header(Header::feedCapacity_);
  while (cursor.sequence < end) {
    const std::uint64_t sequence = cursor.sequence + 1;
    if (end - cursor.sequence > capacity) {
      return false;
    }
    const std::uint64_t entry =
        loadWord(header_->words()[Header::feed_ + (sequence & (capacity - 1))]);
    const auto row = static_cast<std::uint32_t>(entry);
    if (entry != feedEntry(sequence, row) || row >= header(Header::rowCount_)) {
      return false;
    }
    RowState state{};
    try {
      state = copyRow(row);
    } catch (const Corruption&) {
      cursor.sequence = sequence;
      throw;
    }
    // A row that has changed again is told when its latest change comes up, if that is up to `end`.
    if (state != RowState::vacant_ && (copiedSequence() == sequence || copiedSequence() > end)) {
      tell(row, state, follower, result);
    }
    cursor.sequence = sequence;
  }
  return true;
}

void TableReader::followRows(FeedCursor& cursor, Follower& follower, FollowResult& result) {
  while (cursor.scanRow < header(Header::rowCount_)) {
    const std::uint32_t row = cursor.scanRow;
    RowState state{};
    try {
      state = copyRow(row);
    } catch (const Corruption&) {
      ++cursor.scanRow;
      throw;
    }
    if (state != RowState::vacant_ && copiedSequence() > cursor.sequence) {
      tell(row, state, follower, result);
    }
    ++cursor.scanRow;
  }
  cursor.sequence = cursor.scanEnd;
  cursor.scanEnd = 0;
}

void TableReader::tell(std::uint32_t row, RowState state, Follower& follower,
                       FollowResult& result) const {
  const auto record = std::as_bytes(std::span{cell_}).first(geometry_.recordSize);
  ++result.told;
  follower.rowChanged({.row = row,
                       .sequence = copiedSequence(),
                       .live = state == RowState::live_,
                       .record = record});
}

std::size_t TableReader::size() const noexcept { return header(Header::size_); }
std::uint64_t TableReader::epoch() const noexcept { return header(Header::epoch_); }
std::uint64_t TableReader::changeSequence() const noexcept {
  return header(Header::changeSequence_);
}
bool TableReader::isRemoved() const noexcept { return header(Header::removed_) != 0; }

}  // namespace Vasta
