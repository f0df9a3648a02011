#include "sim/SharedMemory.h"

#include <unistd.h>

#include <exception>
#include <utility>

#include "platform/Brisklog/Ring.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/Vasta/Layout.h"
#include "platform/Vasta/TableWriter.h"
#include "sim/SharedNames.h"
#include "sim/TablePaths.h"

namespace Sim {
namespace {

using Vasta::loadWord;
using Vasta::storeWord;

constexpr std::uint64_t stateMagic = 0x4F73'7472'6153'7761U;
constexpr std::uint64_t stateVersion = 1;

// Word offsets in the segment.
enum Word : std::size_t {
  magic_,  // stored last, and removed first
  version_,
  inService_,
  process_,
  givenNumbers_ = 8,  // changed by every insert, unlike the others
  words_ = 16,
};

constexpr std::size_t bytes = words_ * sizeof(std::uint64_t);

bool isState(const Korm::Segment& segment) noexcept {
  return segment.size() >= bytes && loadWord(segment.words()[magic_]) == stateMagic;
}

std::uint64_t processOf(const Korm::Segment& segment) noexcept {
  return loadWord(segment.words()[process_]);
}

bool hasTables(const Korm::Segment& segment) noexcept {
  return isState(segment) && loadWord(segment.words()[Word::inService_]) != 0;
}

std::string subjectOf(const std::string& name) { return "the shared memory '" + name + "'"; }

Korm::SegmentName segmentOf(const std::string& name) { return Korm::SegmentName{"/ostra." + name}; }

std::vector<Vasta::SegmentNames> tablesOf(const std::string& name) {
  std::vector<Vasta::SegmentNames> tables;
  for (const std::string& path : tablePaths()) {
    tables.emplace_back(KormVasta::segmentName(name, path));
  }
  return tables;
}

}  // namespace

std::optional<std::uint64_t> processWithTables(const std::string& name) {
  const auto segment = Korm::Segment::open(segmentOf(name), Korm::Segment::Access::readOnly_, bytes,
                                           subjectOf(name));
  return segment != nullptr && hasTables(*segment) ? std::optional{processOf(*segment)}
                                                   : std::nullopt;
}

SharedMemory::SharedMemory(const std::string& name, Leftover leftover)
    : name_{name}, segmentName_{segmentOf(name)}, tables_{tablesOf(name)}, leftover_{leftover} {
  takeName();
  try {
    inspect();
    KormVasta::sharedMemoryIs({.prefix = name, .takeOver = true});
    // The ring is created after the tables are in order, because it tells readers to look at them.
    // Nothing has been traced yet, so the ring that it replaces is empty.
    std::unique_ptr<Brisklog::Ring> ring = Brisklog::Ring::create({.shmName = traceSegment(name)});
    ring_ = ring.get();
    (void)Brisklog::ringIs(std::move(ring));
  } catch (...) {
    release();
    throw;
  }
}

void SharedMemory::removeTables() const {
  for (const Vasta::SegmentNames& table : tables_) {
    if (!Vasta::removeTable(table)) {
      throw SharedNameError{"the table '" + std::string{table.header().text()} +
                            "' has another writer"};
    }
  }
}

SharedMemory::~SharedMemory() {
  if (leftover_ == Leftover::resume_ && std::uncaught_exceptions() > 0) {
    keep();
  }
  if (!removes_ && ring_ != nullptr) {
    ring_->keepName();
  }
  (void)Brisklog::ringIs(nullptr);
  release();
}

// Memory may have run out: nothing here allocates unless it fails.
void SharedMemory::release() noexcept {
  KormVasta::sharedMemoryIs({});
  if (!removes_) {
    return;
  }
  try {
    if (isState(*segment_)) {
      // If the process dies during the removal, nothing that is left can be resumed.
      storeWord(segment_->words()[Word::inService_], 0);
      removeTables();
    }
    Korm::unlinkSegment(segmentName_);
  } catch (const std::exception&) {  // tables of another user are theirs to remove
  }
}

void SharedMemory::takeName() {
  segment_ = Korm::Segment::own(segmentName_, bytes, subjectOf(name_));
  if (segment_ != nullptr) {
    return;
  }
  const auto owned =
      Korm::Segment::open(segmentName_, Korm::Segment::Access::readOnly_, bytes, subjectOf(name_));
  throw SharedNameError{subjectOf(name_) + " is in use" +
                        (owned != nullptr && isState(*owned)
                             ? " by process " + std::to_string(processOf(*owned))
                             : std::string{})};
}

void SharedMemory::inspect() {
  std::uint64_t* const words = segment_->words();
  const bool known = isState(*segment_);
  if (!known && segment_->size() != 0 && loadWord(words[magic_]) != 0) {
    throw SharedNameError{subjectOf(name_) + ": what has its name is not a switch's"};
  }
  if (known && loadWord(words[version_]) != stateVersion) {
    throw SharedNameError{subjectOf(name_) + " is of another version"};
  }
  const bool left = hasTables(*segment_);
  if (left && leftover_ == Leftover::refuse_) {
    throw LeftoverError{subjectOf(name_) + " holds the tables of process " +
                        std::to_string(processOf(*segment_)) + ", which is gone"};
  }
  resuming_ = left && leftover_ == Leftover::resume_;
  removes_ = !resuming_;
  segment_->grow(bytes);
  numbers_ = reinterpret_cast<GivenNumbers*>(words + Word::givenNumbers_);
  if (!resuming_) {
    storeWord(words[Word::inService_], 0);
    removeTables();
    *numbers_ = {};
  } else {
    // The hardware starts empty, so the old statuses of the entries no longer hold.
    for (std::uint8_t index = 0; index < flowTables; ++index) {
      (void)Vasta::removeTable(KormVasta::segmentName(name_, flowStatusTablePath(index)));
    }
  }
  storeWord(words[version_], stateVersion);
  storeWord(words[process_], static_cast<std::uint64_t>(::getpid()));
  storeWord(words[magic_], stateMagic);
}

void SharedMemory::inServiceIs() noexcept {
  removes_ = true;
  storeWord(segment_->words()[Word::inService_], 1);
}

}  // namespace Sim
