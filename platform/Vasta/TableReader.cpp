#include "platform/Vasta/TableReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

std::shared_ptr<Korm::Segment> openHeader(SegmentSource& source, const RecordLayout& layout) {
  std::shared_ptr<Korm::Segment> header = source.header();
  if (header == nullptr) {
    throw AttachError{AttachFailure::missing, source.name(), "there is no such table"};
  }
  checkHeader(header->words(), header->size(), layout, source.name());
  return header;
}

}  // namespace

TableReader::TableReader(std::string shmName, const RecordLayout& layout)
    : TableReader{std::make_shared<NamedSegments>(std::move(shmName)), layout} {}

TableReader::TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout& layout)
    : source_{std::move(source)},
      header_{openHeader(*source_, layout)},
      geometry_{layout.recordSize, layout.keyOffset, layout.keySize},
      cell_(geometry_.cellWords) {
  attachRows();
  refreshIndex();
}

void TableReader::attachRows() {
  rows_ = source_->rows();
  if (rows_ == nullptr || rows_->identity() != header(Header::identity_)) {
    throw AttachError{AttachFailure::missing, source_->name(),
                      "its rows are missing, or were removed while it was being attached"};
  }
  static_cast<void>(rowCount());
}

std::uint64_t TableReader::header(std::size_t word) const noexcept {
  return loadWord(header_->words()[word]);
}

std::uint64_t TableReader::counter(std::size_t word) const {
  return headerCounter(header_->words(), word, source_->name());
}

// The writer allocates a row before it counts it, so all rows that are counted can be read.
std::uint32_t TableReader::rowCount() {
  const std::uint64_t count = counter(Header::rowCount_);
  if (count > readableRows_) {
    rows_->refreshSize();
    if (count > maximumRows || geometry_.bytesForRows(count) > rows_->size()) {
      throw AttachError{AttachFailure::truncated, source_->name(),
                        "rows are missing of the " + std::to_string(count) + " that it counts"};
    }
    if (geometry_.bytesForRows(count) > rows_->mapped()) {
      throwSystemError(ENOMEM, source_->name(), "read a row beyond the address space granted");
    }
    readableRows_ = count;
  }
  return static_cast<std::uint32_t>(count);
}

bool TableReader::refreshIndex() {
  for (std::uint64_t inForce = counter(Header::indexGeneration_); inForce != generation_;) {
    std::uint64_t generation = inForce;
    if (std::shared_ptr<Korm::Segment> segment = source_->index(generation)) {
      // Within the writer's process the next index is available a moment before it is announced.
      if (generation == generation_) {
        return false;
      }
      indexView_ = IndexView{*segment, generation, header(Header::identity_), source_->name()};
      index_ = std::move(segment);
      generation_ = generation;
      return true;
    }
    // The index was replaced, or it was removed with the table.
    const std::uint64_t tried = inForce;
    inForce = counter(Header::indexGeneration_);
    if (inForce == tried) {
      throw AttachError{AttachFailure::missing, source_->name(),
                        isRemoved() ? "it was removed" : "its index is missing"};
    }
  }
  return false;
}

std::uint64_t TableReader::versionOf(std::uint32_t row) const noexcept {
  return loadWord(rows_->words()[geometry_.rowOffset(row)]);
}

RowState TableReader::copyRow(std::uint32_t row) {
  std::uint64_t version = 0;
  std::size_t stored = 0;
  do {
    version = versionOf(row);
    if (version == 0) {
      return RowState::vacant_;
    }
    const std::uint64_t* cell = cellOf(rows_->words(), row, version, geometry_);
    stored = geometry_.storedWords(loadWord(cell[geometry_.liveWord()]));
    for (std::size_t i = 0; i < stored; ++i) {
      cell_[i] = loadWord(cell[i]);
    }
    used_ = std::max(used_, stored);
    for (std::size_t i = geometry_.liveWord(); i < geometry_.cellWords; ++i) {
      cell_[i] = loadWord(cell[i]);
    }
  } while (versionOf(row) != version);
  sequence_ = Version::sequence(version);
  std::fill_n(cell_.begin() + static_cast<std::ptrdiff_t>(stored), used_ - stored, 0);
  used_ = stored;
  const RowCheck found = checkRow(cell_.data(), row, version, geometry_);
  if (found.state == RowState::corrupt_) {
    throw Corruption{source_->name(), row, found.stored, found.computed};
  }
  return found.state;
}

bool TableReader::lookUp(const void* key, std::uint32_t hash) {
  const auto* copiedKey = reinterpret_cast<const std::byte*>(cell_.data()) + geometry_.keyOffset;
  // An entry is written after its row is counted, so a row beyond the count is damage.
  return indexView_
      .find(hash,
            [&](std::uint32_t row) {
              return row < rowCount() && copyRow(row) == RowState::live_ &&
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
    // A miss is final only if the same index was in force during the whole search.
  } while (refreshIndex());
  return false;
}

bool TableReader::next(Hint& hint, std::byte* record) {
  const std::uint32_t end = rowCount();
  while (hint.row < end) {
    if (copyRow(hint.row++) == RowState::live_) {
      std::memcpy(record, cell_.data(), geometry_.recordSize);
      return true;
    }
  }
  return false;
}

FollowResult TableReader::follow(FollowCursor& cursor, Follower& follower) {
  FollowResult result;
  const std::uint64_t writer = writerGeneration();
  result.writerChanged = cursor.writerGeneration != 0 && cursor.writerGeneration != writer;
  cursor.writerGeneration = writer;
  if (cursor.passEnd == 0) {
    const std::uint64_t end = changeSequence();
    if (end == cursor.sequence) {
      return result;
    }
    cursor = {.sequence = end < cursor.sequence ? 0 : cursor.sequence,
              .writerGeneration = writer,
              .nextRow = 0,
              .passEnd = end};
  }
  for (; cursor.nextRow < rowCount(); ++cursor.nextRow) {
    // Whether the version is damaged is checked when the row is copied.
    if (Version::sequence(versionOf(cursor.nextRow)) > cursor.sequence) {
      tell(cursor, follower, result);
    }
  }
  cursor.sequence = std::exchange(cursor.passEnd, 0);
  return result;
}

void TableReader::tell(FollowCursor& cursor, Follower& follower, FollowResult& result) {
  const std::uint32_t row = cursor.nextRow;
  RowState state{};
  try {
    state = copyRow(row);
  } catch (const Corruption&) {
    ++cursor.nextRow;
    throw;
  }
  if (state == RowState::vacant_) {
    return;
  }
  ++result.told;
  follower.rowChanged({.row = row,
                       .sequence = sequence_,
                       .live = state == RowState::live_,
                       .record = std::as_bytes(std::span{cell_}).first(geometry_.recordSize)});
}

bool TableReader::isRemoved() const noexcept { return header(Header::removed_) == removedMark; }

}  // namespace Vasta
