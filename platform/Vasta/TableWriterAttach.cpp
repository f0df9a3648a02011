// How a writer comes by its table: creation, and the take-over from a writer that closed or died.
#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/TableWriter.h"

namespace Vasta {
namespace {

constexpr std::uint64_t firstGeneration = 1;

// Also generations that a writer died in the middle of building or of removing.
void unlinkIndexes(const SegmentNames& names, std::uint64_t generation) noexcept {
  unlinkSegment(names.index(generation - 1));
  unlinkSegment(names.index(generation));
  unlinkSegment(names.index(generation + 1));
}

// The header goes last: as long as it is there, whoever opens the table finds out what else is left.
void unlinkTable(const SegmentNames& names, const Segment& header) noexcept {
  const bool formatted = header.size() >= headerBytes(minimumFeedCapacity);
  const std::uint64_t generation =
      formatted ? loadWord(header.words()[Header::indexGeneration_]) : 0;
  unlinkIndexes(names, std::max(generation, firstGeneration));
  unlinkSegment(names.rows());
  unlinkSegment(names.header());
}

// What a writer left that died while it created or removed the table.
bool isRemnant(const Segment& header) noexcept {
  return header.size() < headerBytes(minimumFeedCapacity) ||
         loadWord(header.words()[Header::magic_]) == 0 ||
         (loadWord(header.words()[Header::magic_]) == tableMagic &&
          loadWord(header.words()[Header::removed_]) != 0);
}

}  // namespace

TableWriter::TableWriter(const RecordLayout& layout, TableOptions options)
    : layout_{layout},
      geometry_{layout.recordSize, layout.keyOffset, layout.keySize},
      options_{std::move(options)},
      staging_(geometry_.recordWords + (geometry_.keySize + wordSize - 1) / wordSize),
      mountState_{options_.mountState} {
  if (options_.shmName.empty()) {
    create(Segment::create({}, headerReservation, options_.name));
  } else {
    names_.emplace(options_.shmName);
    openNamed();
  }
}

TableWriter::~TableWriter() {
  if (names_ && options_.unlinkOnClose) {
    storeWord(header_[Header::removed_], 1);
    unlinkTable(*names_, *headerSegment_);
  }
}

void TableWriter::openNamed() {
  for (;;) {
    std::shared_ptr<Segment> header =
        Segment::openOrCreate(names_->header(), headerReservation, options_.name);
    if (!header->tryLockExclusive()) {
      throw AttachError{AttachFailure::writerBusy, options_.name, "another writer has it"};
    }
    // Its last writer may have removed it between the opening and the locking.
    if (!header->isNamed(names_->header())) {
      continue;
    }
    header->refreshSize();
    if (header->size() == 0) {
      createNamed(header);
      return;
    }
    if (!isRemnant(*header)) {
      takeOver(std::move(header));
      return;
    }
    // Readers may still have it mapped, so the new table gets segments of its own.
    unlinkTable(*names_, *header);
  }
}

void TableWriter::createNamed(const std::shared_ptr<Segment>& header) {
  unlinkIndexes(*names_, firstGeneration);
  unlinkSegment(names_->rows());
  try {
    create(header);
  } catch (...) {
    unlinkTable(*names_, *header);
    throw;
  }
}

void TableWriter::create(std::shared_ptr<Segment> header) {
  attachSegments(std::move(header), Segment::create(names_ ? names_->rows() : std::string{},
                                                    rowsReservation, options_.name));
  formatHeader();
  index_.emplace(makeIndex(firstGeneration));
  index_->publish();
  storeWord(header_[Header::magic_], tableMagic);
}

void TableWriter::attachSegments(std::shared_ptr<Segment> header, std::shared_ptr<Segment> rows) {
  headerSegment_ = std::move(header);
  rowsSegment_ = std::move(rows);
  header_ = headerSegment_->words();
  rows_ = rowsSegment_->words();
  local_ = std::make_shared<LocalSegments>(options_.name, headerSegment_, rowsSegment_);
}

Index TableWriter::makeIndex(std::uint64_t generation) const {
  return Index{{.names = names_, .local = local_, .header = header_, .table = options_.name},
               generation,
               rowCount_};
}

void TableWriter::formatHeader() {
  const std::size_t capacity =
      std::bit_ceil(std::clamp(options_.feedCapacity, minimumFeedCapacity, maximumFeedCapacity));
  headerSegment_->grow(headerBytes(capacity));
  feedMask_ = capacity - 1;
  storeWord(header_[Header::formatVersion_], formatVersion);
  storeWord(header_[Header::layoutHash_], layoutHash(layout_));
  storeWord(header_[Header::recordSize_], layout_.recordSize);
  storeWord(header_[Header::keyOffset_], layout_.keyOffset);
  storeWord(header_[Header::keySize_], layout_.keySize);
  storeWord(header_[Header::feedCapacity_], capacity);
  storeWord(header_[Header::identity_], rowsSegment_->identity());
  storeWord(header_[Header::epoch_], 1);
}

void TableWriter::takeOver(std::shared_ptr<Segment> header) {
  checkHeader(header->words(), header->size(), &layout_, options_.name);
  std::shared_ptr<Segment> rows =
      Segment::open(names_->rows(), Segment::Access::readWrite_, rowsReservation, options_.name);
  const std::uint64_t rowCount = loadWord(header->words()[Header::rowCount_]);
  if (rows == nullptr || rows->identity() != loadWord(header->words()[Header::identity_]) ||
      rowCount > maximumRows || rows->size() < geometry_.bytesForRows(rowCount)) {
    throw AttachError{AttachFailure::truncated, options_.name, "rows are missing"};
  }
  attachSegments(std::move(header), std::move(rows));
  feedMask_ = loadWord(header_[Header::feedCapacity_]) - 1;
  rowCount_ = static_cast<std::uint32_t>(rowCount);
  changeSequence_ = loadWord(header_[Header::changeSequence_]);
  const std::uint64_t generation = loadWord(header_[Header::indexGeneration_]);
  index_.emplace(makeIndex(generation + 1));
  takeOverRows();
  storeWord(header_[Header::epoch_], epoch() + 1);
  index_->publish();
  unlinkSegment(names_->index(generation));
  unlinkSegment(names_->index(generation - 1));
}

void TableWriter::takeOverRows() {
  occupied_.resize(rowCount_);
  std::uint64_t latest = changeSequence_;
  std::uint32_t latestRow = 0;
  for (std::uint32_t row = 0; row < rowCount_; ++row) {
    takeOverRow(row);
    const std::uint64_t sequence = activeCell(row)[geometry_.sequenceWord()];
    if (sequence > latest && inspect(row) != RowState::corrupt_) {
      latest = sequence;
      latestRow = row;
    }
  }
  if (latest > changeSequence_) {
    // The writer before died between a change and its entry in the feed.
    changeSequence_ = latest;
    publishChange(latestRow);
  }
  storeWord(header_[Header::size_], size_);
}

// A corrupt row is kept, for whoever walks the table to find and for the owner to discard, but not
// indexed: its key cannot be trusted.
void TableWriter::takeOverRow(std::uint32_t row) {
  const RowState state = inspect(row);
  if (state == RowState::vacant_) {
    freeRows_.push_back(row);
    return;
  }
  occupied_[row] = true;
  ++size_;
  if (state == RowState::corrupt_) {
    reportCorruption(corruptionOf(row).what());
    return;
  }
  index_->insert(layout_.hashOfKey(keyOf(row)), row);
}

bool removeTable(const std::string& shmName) {
  const SegmentNames names{shmName};
  const auto header =
      Segment::open(names.header(), Segment::Access::readWrite_, headerReservation, shmName);
  if (header == nullptr) {
    return true;
  }
  if (!header->tryLockExclusive()) {
    return false;
  }
  header->refreshSize();
  if (!isRemnant(*header)) {
    storeWord(header->words()[Header::removed_], 1);
  }
  unlinkTable(names, *header);
  return true;
}

}  // namespace Vasta
