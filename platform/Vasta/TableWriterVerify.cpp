// The check of every invariant of a table, for tests and for owners that suspect damage.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/TableWriter.h"

namespace Vasta {

std::optional<std::string> TableWriter::verify() const {
  if (loadWord(header_[Header::rowCount_]) != checkedWord(rowCount_) ||
      loadWord(header_[Header::size_]) != checkedWord(size_) ||
      loadWord(header_[Header::changeSequence_]) != checkedWord(changeSequence_) ||
      loadWord(header_[Header::writerGeneration_]) != checkedWord(writerGeneration_)) {
    return "the header does not count what the writer counts";
  }
  if (geometry_.rowsWithin(rowsSegment_->size()) < rowCount_) {
    return "rows lie beyond what is allocated";
  }
  if (auto violation = index_->verify()) {
    return violation;
  }
  return verifyRows();
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
  const RowCheck found = check(row);
  const RowState state = found.state;
  if (state == RowState::corrupt_) {
    return corruptionOf(row, found).what();
  }
  if (occupied_[row] != (state == RowState::live_)) {
    return name + " is " + (occupied_[row] ? "occupied but not live" : "live but not occupied");
  }
  if (Version::sequence(loadWord(rowWords(row)[0])) > changeSequence_) {
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

}  // namespace Vasta
