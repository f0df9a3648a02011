// The check of every invariant of a table, for tests and for an owner in doubt.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/TableWriter.h"

namespace Vasta {

std::optional<std::string> TableWriter::verify() const {
  if (loadWord(header_[Header::rowCount_]) != rowCount_ ||
      loadWord(header_[Header::size_]) != size_ ||
      loadWord(header_[Header::changeSequence_]) != changeSequence_) {
    return "the header does not count what the writer counts";
  }
  if (rowsSegment_->size() < geometry_.bytesForRows(rowCount_)) {
    return "rows lie beyond what is allocated";
  }
  if (auto violation = index_->verify()) {
    return violation;
  }
  if (auto violation = verifyRows()) {
    return violation;
  }
  return verifyFeed();
}

std::optional<std::string> TableWriter::verifyRows() const {
  std::size_t occupied = 0;
  for (std::uint32_t row = 0; row < rowCount_; ++row) {
    if (auto violation = verifyRow(row)) {
      return violation;
    }
    occupied += occupied_[row] ? 1 : 0;
  }
  if (occupied != size_ || occupied != index_->size()) {
    return "there are " + std::to_string(occupied) + " records, " + std::to_string(size_) +
           " are counted and " + std::to_string(index_->size()) + " indexed";
  }
  std::vector<bool> isFree(rowCount_);
  for (const std::uint32_t row : freeRows_) {
    if (row >= rowCount_ || occupied_[row] || isFree[row]) {
      return "row " + std::to_string(row) + " is free twice or not free";
    }
    isFree[row] = true;
  }
  if (occupied + freeRows_.size() != rowCount_) {
    return "a row is neither free nor occupied";
  }
  return std::nullopt;
}

std::optional<std::string> TableWriter::verifyRow(std::uint32_t row) const {
  const std::string name = "row " + std::to_string(row);
  const RowState state = inspect(row);
  const std::uint64_t* cell = activeCell(row);
  if (state == RowState::corrupt_) {
    return corruptionOf(row).what();
  }
  if (occupied_[row] != (state == RowState::live_)) {
    return name + " is " + (occupied_[row] ? "occupied but not live" : "live but not occupied");
  }
  if (cell[geometry_.sequenceWord()] > changeSequence_) {
    return name + " is newer than the latest change";
  }
  if (state == RowState::live_) {
    const auto position = locate(keyOf(row), layout_.hashOfKey(keyOf(row)));
    if (!position || position->row != row) {
      return name + (position ? " has the same key as row " + std::to_string(position->row)
                              : " is not in the index");
    }
  }
  return std::nullopt;
}

std::optional<std::string> TableWriter::verifyFeed() const {
  const std::uint64_t count = std::min<std::uint64_t>(changeSequence_, feedMask_ + 1);
  for (std::uint64_t sequence = changeSequence_ - count + 1; sequence <= changeSequence_;
       ++sequence) {
    const std::uint64_t entry = loadWord(header_[Header::feed_ + (sequence & feedMask_)]);
    const auto row = static_cast<std::uint32_t>(entry);
    if (entry != feedEntry(sequence, row) || row >= rowCount_) {
      return "the feed has no entry for change " + std::to_string(sequence);
    }
    if (activeCell(row)[geometry_.sequenceWord()] < sequence) {
      return "row " + std::to_string(row) + " does not show change " + std::to_string(sequence);
    }
  }
  return std::nullopt;
}

}  // namespace Vasta
