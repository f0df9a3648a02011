// How a writer gets its table: creation, and the take-over from a writer that closed or died.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/TableWriter.h"

namespace Vasta {
namespace {

constexpr std::uint64_t firstGeneration = 1;

// Includes the generations that a writer was building or removing when it died.
void unlinkIndexes(const SegmentNames& names, std::uint64_t generation) noexcept {
  Korm::unlinkSegment(names.index(generation - 1));
  Korm::unlinkSegment(names.index(generation));
  Korm::unlinkSegment(names.index(generation + 1));
}

bool isFormatted(const Korm::Segment& header) noexcept { return header.size() >= headerBytes; }

// The header is removed last: while it exists, the next writer can find out what else is left.
void unlinkTable(const SegmentNames& names, const Korm::Segment& header) noexcept {
  const auto generation = isFormatted(header)
                              ? checkedNumber(loadWord(header.words()[Header::indexGeneration_]))
                              : std::nullopt;
  unlinkIndexes(names, std::max(generation.value_or(0), firstGeneration));
  Korm::unlinkSegment(names.rows());
  Korm::unlinkSegment(names.header());
}

// Whether the writer died while it created or removed the table.
bool isRemnant(const Korm::Segment& header) noexcept {
  if (!isFormatted(header)) {
    return true;
  }
  const std::uint64_t* words = header.words();
  const std::uint64_t version = loadWord(words[Header::formatVersion_]);
  return loadWord(words[Header::magic_]) == 0
             ? version == 0 || version == formatVersion
             : loadWord(words[Header::magic_]) == tableMagic &&
                   loadWord(words[Header::removed_]) == removedMark;
}

bool removeUnowned(const SegmentNames& names, Korm::Segment& header) {
  if (!header.tryLockExclusive()) {
    return false;
  }
  header.refreshSize();
  if (!isRemnant(header)) {
    if (loadWord(header.words()[Header::magic_]) != tableMagic) {
      return false;
    }
    storeWord(header.words()[Header::removed_], removedMark);
  }
  unlinkTable(names, header);
  return true;
}

}  // namespace

TableWriter::TableWriter(const RecordLayout& layout, TableOptions options)
    : layout_{layout},
      geometry_{layout.recordSize, layout.keyOffset, layout.keySize},
      options_{std::move(options)},
      staging_(geometry_.recordWords + (geometry_.keySize + wordSize - 1) / wordSize),
      mountState_{options_.mountState} {
  if (options_.shmName.empty()) {
    create(Korm::Segment::createAnonymous(headerBytes, tableSubject(options_.name)));
  } else {
    names_.emplace(options_.shmName);
    openNamed();
  }
}

TableWriter::~TableWriter() {
  if (names_ && options_.unlinkOnClose) {
    storeWord(header_[Header::removed_], removedMark);
    unlinkTable(*names_, *headerSegment_);
  }
}

void TableWriter::openNamed() {
  for (;;) {
    std::shared_ptr<Korm::Segment> header =
        Korm::Segment::own(names_->header(), headerBytes, tableSubject(options_.name));
    if (header == nullptr) {
      throw AttachError{AttachFailure::writerBusy, options_.name, "another writer has it"};
    }
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

void TableWriter::createNamed(const std::shared_ptr<Korm::Segment>& header) {
  unlinkIndexes(*names_, firstGeneration);
  Korm::unlinkSegment(names_->rows());
  try {
    create(header);
  } catch (...) {
    unlinkTable(*names_, *header);
    throw;
  }
}

void TableWriter::create(std::shared_ptr<Korm::Segment> header) {
  const std::string subject = tableSubject(options_.name);
  attachSegments(std::move(header),
                 names_ ? Korm::Segment::create(names_->rows(), rowsReservation, subject)
                        : Korm::Segment::createAnonymous(rowsReservation, subject));
  formatHeader();
  index_.emplace(makeIndex(firstGeneration));
  index_->publish();
  storeWord(header_[Header::magic_], tableMagic);
}

void TableWriter::attachSegments(std::shared_ptr<Korm::Segment> header,
                                 std::shared_ptr<Korm::Segment> rows) {
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
  headerSegment_->grow(headerBytes);
  storeWord(header_[Header::formatVersion_], formatVersion);
  storeWord(header_[Header::layoutHash_], layoutHash(layout_));
  storeWord(header_[Header::recordSize_], layout_.recordSize);
  storeWord(header_[Header::keyOffset_], layout_.keyOffset);
  storeWord(header_[Header::keySize_], layout_.keySize);
  storeWord(header_[Header::identity_], rowsSegment_->identity());
  storeWord(header_[Header::writerGeneration_], checkedWord(writerGeneration_));
}

// The row count in the header is not trusted. Rows are counted by the size of their segment
// instead, which is right because rows that are allocated but not counted are vacant.
void TableWriter::takeOver(std::shared_ptr<Korm::Segment> header) {
  checkHeader(header->words(), header->size(), layout_, options_.name);
  std::shared_ptr<Korm::Segment> rows =
      Korm::Segment::open(names_->rows(), Korm::Segment::Access::readWrite_, rowsReservation,
                          tableSubject(options_.name));
  const auto counter = [&header](std::size_t word) {
    return checkedNumber(loadWord(header->words()[word])).value_or(0);
  };
  if (rows == nullptr || rows->identity() != loadWord(header->words()[Header::identity_]) ||
      counter(Header::rowCount_) > geometry_.rowsWithin(rows->size())) {
    throw AttachError{AttachFailure::truncated, options_.name, "rows are missing"};
  }
  const std::size_t rowsThere = geometry_.rowsWithin(std::min(rows->size(), rows->mapped()));
  if (counter(Header::rowCount_) > rowsThere) {
    throwSystemError(ENOMEM, options_.name, "map all rows");
  }
  const std::uint64_t generation = counter(Header::indexGeneration_);
  writerGeneration_ = counter(Header::writerGeneration_) + 1;
  // Where the counter is damaged, the rows tell how far the sequence has come.
  const std::uint64_t sequence = counter(Header::changeSequence_);
  changeSequence_ = sequence <= Version::maximumSequence ? sequence : 0;
  attachSegments(std::move(header), std::move(rows));
  rowCount_ = static_cast<std::uint32_t>(std::min<std::size_t>(maximumRows, rowsThere));
  index_.emplace(makeIndex(generation + 1));
  takeOverRows();
  storeWord(header_[Header::rowCount_], checkedWord(rowCount_));
  storeWord(header_[Header::writerGeneration_], checkedWord(writerGeneration_));
  publishChange();
  index_->publish();
  Korm::unlinkSegment(names_->index(generation));
  Korm::unlinkSegment(names_->index(generation - 1));
}

// The previous writer may have died between a change and the store of its sequence in the header.
void TableWriter::takeOverRows() {
  occupied_.resize(rowCount_);
  for (std::uint32_t row = 0; row < rowCount_; ++row) {
    if (takeOverRow(row) != RowState::corrupt_) {
      changeSequence_ = std::max(changeSequence_, Version::sequence(loadWord(rowWords(row)[0])));
    }
  }
}

// A corrupt row is kept, so that a walk finds it and the owner can discard it. It is not indexed,
// because its key cannot be trusted.
RowState TableWriter::takeOverRow(std::uint32_t row) {
  const RowCheck found = check(row);
  if (found.state == RowState::corrupt_) {
    occupied_[row] = true;
    ++size_;
    reportCorruption(corruptionOf(row, found).what());
    return found.state;
  }
  if (Version::isInSpareCell(loadWord(rowWords(row)[0]))) {
    copySpareCell(row);  // the previous writer died while it did that
  }
  if (found.state != RowState::live_) {
    freeRows_.push_back(row);
    return found.state;
  }
  occupied_[row] = true;
  ++size_;
  const std::uint32_t hash = layout_.hashOfKey(keyOf(row));
  index_->insert(index_->prepareInsert(hash), hash, row);
  return found.state;
}

bool removeTable(const std::string& shmName) {
  return removeTable(SegmentNames{shmName}, tableSubject(shmName));
}

bool removeTable(const SegmentNames& names, const std::string& subject) {
  bool gone = true;
  Korm::Segment::with(names.header(), Korm::Segment::Access::readWrite_, headerBytes, subject,
                      [&](Korm::Segment& header) { gone = removeUnowned(names, header); });
  return gone;
}

}  // namespace Vasta
