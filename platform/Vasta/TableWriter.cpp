#include "platform/Vasta/TableWriter.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include "platform/Korm/Exceptions.h"
#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

// Rows are allocated in small pieces, so that no insertion waits for more than one of them.
constexpr std::size_t smallestGrowth = std::size_t{16} << 10U;
constexpr std::size_t largestGrowth = std::size_t{32} << 10U;

}  // namespace

std::uint64_t* TableWriter::rowWords(std::uint32_t row) const noexcept {
  return rows_ + geometry_.rowOffset(row);
}

const std::uint64_t* TableWriter::activeCell(std::uint32_t row) const noexcept {
  return cellOf(rows_, row, loadWord(rowWords(row)[0]), geometry_);
}

const std::byte* TableWriter::recordOf(std::uint32_t row) const noexcept {
  return reinterpret_cast<const std::byte*>(activeCell(row));
}

const std::byte* TableWriter::keyOf(std::uint32_t row) const noexcept {
  return recordOf(row) + geometry_.keyOffset;
}

RowCheck TableWriter::check(std::uint32_t row) const noexcept {
  return checkRow(activeCell(row), row, loadWord(rowWords(row)[0]), geometry_);
}

Corruption TableWriter::corruptionOf(std::uint32_t row, const RowCheck& check) const {
  return {options_.name, row, check.stored, check.computed};
}

// An occupied row must be live. If it is neither live nor corrupt, its words were overwritten by
// others with a right checksum, which is damage too.
void TableWriter::requireIntact(std::uint32_t row) const {
  if (const RowCheck found = check(row); found.state != RowState::live_) [[unlikely]] {
    throw corruptionOf(row, found);
  }
}

bool TableWriter::hasKey(std::uint32_t row, const void* key) const noexcept {
  return std::memcmp(keyOf(row), key, geometry_.keySize) == 0;
}

std::optional<IndexPosition> TableWriter::locate(const void* key, std::uint32_t hash) const {
  // A corrupt row with the same hash is taken for the row of this key, although the damage may be
  // in its key: so a look-up reports it and a write heals it. A damaged entry may lead to any row.
  return index_->find(hash, [this, key](std::uint32_t row) {
    return row < rowCount_ && occupied_[row] &&
           (hasKey(row, key) || check(row).state == RowState::corrupt_);
  });
}

const std::byte* TableWriter::find(const void* key, std::uint32_t hash) const {
  const auto position = locate(key, hash);
  if (!position) {
    return nullptr;
  }
  requireIntact(position->row);
  return recordOf(position->row);
}

void TableWriter::prefetch(std::span<const std::uint32_t> hashes) const noexcept {
  for (const std::uint32_t hash : hashes) {
    index_->prefetch(hash);
  }
  for (const std::uint32_t hash : hashes) {
    const auto position = index_->find(hash, [this](std::uint32_t row) { return row < rowCount_; });
    if (position) {
      Korm::prefetch(rowWords(position->row), geometry_.rowWords * wordSize);
    }
  }
}

void TableWriter::is(const std::byte* record, std::uint32_t hash) {
  const std::byte* key = record + geometry_.keyOffset;
  if (const auto position = locate(key, hash)) {
    overwrite(position->row, record);
  } else {
    insert(record, hash);
  }
  notify(key);
}

void TableWriter::overwrite(std::uint32_t row, const std::byte* record) {
  commitRow(row, record, true);
  publishChange();
}

void TableWriter::insert(const std::byte* record, std::uint32_t hash) {
  const std::size_t slot = index_->prepareInsert(hash);
  const std::uint32_t row = takeRow();
  commitRow(row, record, true);
  occupied_[row] = true;
  ++size_;
  index_->insert(slot, hash, row);
  publishChange();
  index_->advance();
}

std::uint32_t TableWriter::takeRow() {
  if (!freeRows_.empty()) {
    const std::uint32_t row = freeRows_.back();
    freeRows_.pop_back();
    return row;
  }
  const std::uint32_t row = rowCount_;
  if (row >= maximumRows) {
    throwSystemError(ENOSPC, options_.name, "add a row");
  }
  const std::size_t size = rowsSegment_->size();
  if (const std::size_t needed = geometry_.bytesForRows(std::size_t{row} + 1); needed > size) {
    rowsSegment_->grow(std::max(needed, size + std::clamp(size, smallestGrowth, largestGrowth)));
  }
  occupied_.resize(std::size_t{row} + 1);
  // The row is counted before it is filled: if the writer dies in between, the row is vacant.
  ++rowCount_;
  storeWord(header_[Header::rowCount_], checkedWord(rowCount_));
  return row;
}

std::size_t TableWriter::usedSize(const std::byte* record) const noexcept {
  return layout_.usedSize == nullptr
             ? geometry_.recordSize
             : std::min<std::size_t>(layout_.usedSize(record), geometry_.recordSize);
}

void TableWriter::copyRecord(std::uint32_t row, std::byte* out) const noexcept {
  const std::size_t used = usedSize(recordOf(row));
  std::memcpy(out, recordOf(row), used);
  std::memset(out + used, 0, geometry_.recordSize - used);
}

// Requires: the cell is not the one in force.
void TableWriter::fillCell(std::uint64_t* cell, std::uint32_t row, const std::byte* record,
                           bool live) const noexcept {
  const std::size_t used = usedSize(record);
  const std::size_t wholeWords = used / wordSize;
  for (std::size_t i = 0; i < wholeWords; ++i) {
    std::uint64_t word = 0;
    std::memcpy(&word, record + i * wordSize, wordSize);
    storeWord(cell[i], word);
  }
  const std::size_t rest = used % wordSize;
  if (rest != 0) {
    std::uint64_t word = 0;
    std::memcpy(&word, record + wholeWords * wordSize, rest);
    storeWord(cell[wholeWords], word);
  }
  const std::size_t stored = wholeWords + (rest != 0 ? 1 : 0);
  storeWord(cell[geometry_.liveWord()], RowGeometry::makeLiveWord(stored, live));
  storeWord(cell[geometry_.checksumWord()], cellChecksum(cell, row, changeSequence_, geometry_));
}

// Makes the row's own cell the one in force.
// Requires: the spare cell is, and it is intact.
void TableWriter::copySpareCell(std::uint32_t row) noexcept {
  std::uint64_t* words = rowWords(row);
  std::uint64_t* own = words + 1;
  const std::size_t stored = geometry_.storedWords(rows_[geometry_.liveWord()]);
  for (std::size_t i = 0; i < stored; ++i) {
    storeWord(own[i], rows_[i]);
  }
  for (std::size_t i = geometry_.liveWord(); i < geometry_.cellWords; ++i) {
    storeWord(own[i], rows_[i]);
  }
  const std::uint64_t sequence = Version::sequence(words[0]);
  storeWord(words[0], checkedWord(Version::of(sequence, false)));
}

void TableWriter::commitRow(std::uint32_t row, const std::byte* record, bool live) noexcept {
  std::uint64_t* words = rowWords(row);
  ++changeSequence_;
  if (loadWord(words[0]) == 0) {
    fillCell(words + 1, row, record, live);
    storeWord(words[0], checkedWord(Version::of(changeSequence_, false)));
  } else {
    fillCell(rows_, row, record, live);
    storeWord(words[0], checkedWord(Version::of(changeSequence_, true)));
    copySpareCell(row);
  }
  // The caller reads records in place through another type, so the compiler must not move its
  // reads.
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void TableWriter::publishChange() noexcept {
  storeWord(header_[Header::size_], checkedWord(size_));
  storeWord(header_[Header::changeSequence_], checkedWord(changeSequence_));
}

void TableWriter::notify(const void* key) {
  if (quiesced_) {
    quiesced_ = false;
    if (listener_ != nullptr) {
      listener_->quiescedChanged(false);
    }
  }
  if (listener_ == nullptr || key == nullptr) {
    return;
  }
  const auto* const start = reinterpret_cast<const std::byte*>(rows_);
  const auto* const bytes = static_cast<const std::byte*>(key);
  if (std::less<>{}(bytes, start) || !std::less<>{}(bytes, start + rowsSegment_->mapped())) {
    listener_->recordChanged(key);
    return;
  }
  // The listener may change the row that contains the key.
  std::vector<std::uint64_t> copy(geometry_.keySize / wordSize + 1);
  std::memcpy(copy.data(), key, geometry_.keySize);
  listener_->recordChanged(copy.data());
}

bool TableWriter::del(const void* key, std::uint32_t hash, std::byte* removed) {
  const auto position = locate(key, hash);
  if (!position) {
    return false;
  }
  if (removed != nullptr) {
    requireIntact(position->row);
    copyRecord(position->row, removed);
  }
  removeRow(position->row, position->slot);
  notify(key);
  return true;
}

// The record stays in the cell and is only marked as removed, so that a follower sees its key.
void TableWriter::removeRow(std::uint32_t row, std::optional<std::size_t> slot) {
  freeRows_.push_back(row);
  commitRow(row, recordOf(row), false);
  if (slot) {
    index_->erase(*slot);
  } else {
    index_->eraseRow(row);
  }
  occupied_[row] = false;
  --size_;
  publishChange();
  index_->advance();
}

bool TableWriter::discard(std::uint32_t row) {
  if (row >= rowCount_ || !occupied_[row]) {
    return false;
  }
  const bool intact = check(row).state == RowState::live_;
  std::optional<std::size_t> slot;
  if (intact) {
    const auto position = index_->find(layout_.hashOfKey(keyOf(row)),
                                       [row](std::uint32_t candidate) { return candidate == row; });
    slot = position ? std::optional{position->slot} : std::nullopt;
  }
  removeRow(row, slot);
  notify(intact ? keyOf(row) : nullptr);
  return true;
}

void TableWriter::delAll() {
  const std::uint32_t end = rowCount_;
  for (std::uint32_t row = 0; row < end; ++row) {
    discard(row);
  }
}

std::byte* TableWriter::edit(const void* key, std::uint32_t hash) {
  const auto position = locate(key, hash);
  if (!position) {
    return nullptr;
  }
  requireIntact(position->row);
  auto* staging = reinterpret_cast<std::byte*>(staging_.data());
  copyRecord(position->row, staging);
  std::memcpy(staging + geometry_.recordWords * wordSize, staging + geometry_.keyOffset,
              geometry_.keySize);
  stagedRow_ = position->row;
  return staging;
}

bool TableWriter::commit(const std::byte* staging) {
  Korm::assertTrue(
      staging == reinterpret_cast<const std::byte*>(staging_.data()) && stagedRow_.has_value(),
      "what is committed is what edit() gave");
  const std::byte* key = staging + geometry_.keyOffset;
  Korm::assertTrue(
      std::memcmp(key, staging + geometry_.recordWords * wordSize, geometry_.keySize) == 0,
      "an edit leaves the key alone");
  const std::uint32_t row = *std::exchange(stagedRow_, std::nullopt);
  if (!occupied_[row] || !hasKey(row, key)) {
    return false;
  }
  overwrite(row, staging);
  notify(key);
  return true;
}

const std::byte* TableWriter::next(Hint& hint) const {
  while (hint.row < rowCount_) {
    const std::uint32_t row = hint.row++;
    if (occupied_[row]) {
      requireIntact(row);
      return recordOf(row);
    }
  }
  return nullptr;
}

void TableWriter::quiesce() {
  if (!std::exchange(quiesced_, true) && listener_ != nullptr) {
    listener_->quiescedChanged(true);
  }
}

void TableWriter::mountStateIs(MountState state) {
  if (std::exchange(mountState_, state) != state && listener_ != nullptr) {
    listener_->mountStateChanged();
  }
}

void TableWriter::reportCorruption(const std::string& message) {
  ++corruptionCount_;
  lastCorruption_ = message;
  if (corruptionHandler_) {
    corruptionHandler_(message);
  }
}

}  // namespace Vasta
