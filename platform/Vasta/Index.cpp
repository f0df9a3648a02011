#include "platform/Vasta/Index.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/Korm/Exceptions.h"
#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

constexpr std::uint64_t indexMagic = 0x5641'5354'4149'4458U;

// Words at the start of an index segment.
constexpr std::size_t magicWord = 0;
constexpr std::size_t generationWord = 1;
constexpr std::size_t capacityWord = 2;
constexpr std::size_t identityWord = 3;
constexpr std::size_t entriesWord = 8;

constexpr std::size_t minimumCapacity = 512;

// The work of one step. A step takes tens of microseconds at most. The replacement of a generation
// begins when it is half full and is complete before it is three quarters full: copying takes an
// eighth of its capacity in steps, and allocating far fewer.
constexpr std::size_t bytesPerStep = std::size_t{32} << 10U;
constexpr std::uint64_t stepsPerAllocation = 16;
constexpr std::size_t entriesPerStep = 8;

}  // namespace

IndexView::IndexView(std::uint64_t* entries, std::size_t capacity) noexcept
    : entries_{entries},
      mask_{capacity - 1},
      shift_{64U - static_cast<unsigned>(std::countr_zero(capacity))} {}

IndexView::IndexView(const Korm::Segment& segment, std::uint64_t generation, std::uint64_t identity,
                     const std::string& table) {
  std::uint64_t* words = segment.words();
  if (segment.size() < entriesWord * wordSize || loadWord(words[magicWord]) != indexMagic ||
      loadWord(words[generationWord]) != generation || loadWord(words[identityWord]) != identity) {
    throw AttachError{AttachFailure::foreign, table, "its index segment is not its own"};
  }
  const std::uint64_t capacity = loadWord(words[capacityWord]);
  if (capacity < 2 || !std::has_single_bit(capacity) ||
      capacity > segment.size() / wordSize - entriesWord) {
    throw AttachError{AttachFailure::truncated, table, "its index segment is too short"};
  }
  *this = IndexView{words + entriesWord, capacity};
}

Index::Index(Place place, std::uint64_t generation, std::size_t rows) : place_{std::move(place)} {
  const std::size_t capacity = std::max(minimumCapacity, std::bit_ceil(2 * rows + 1));
  current_ = makeGeneration(generation, capacity);
  current_.segment->grow(segmentBytes(capacity));
  current_.view = IndexView{current_.segment->words() + entriesWord, capacity};
}

std::size_t Index::segmentBytes(std::size_t capacity) noexcept {
  return (entriesWord + capacity) * wordSize;
}

Index::Generation Index::makeGeneration(std::uint64_t number, std::size_t capacity) const {
  Generation generation;
  generation.number = number;
  const std::string subject = tableSubject(place_.table);
  if (!place_.names) {
    generation.segment = Korm::Segment::createAnonymous(segmentBytes(capacity), subject);
    return generation;
  }
  generation.name = place_.names->index(number);
  // A writer that died while it built this generation may have left it.
  Korm::unlinkSegment(*generation.name);
  generation.segment = Korm::Segment::create(*generation.name, segmentBytes(capacity), subject);
  return generation;
}

void Index::complete(Generation& generation, std::uint64_t identity) noexcept {
  std::uint64_t* words = generation.segment->words();
  storeWord(words[generationWord], generation.number);
  storeWord(words[capacityWord], generation.view.capacity());
  storeWord(words[identityWord], identity);
  storeWord(words[magicWord], indexMagic);
}

void Index::publish() noexcept {
  complete(current_, loadWord(place_.header[Header::identity_]));
  place_.local->indexIs(current_.number, current_.segment);
  storeWord(place_.header[Header::indexGeneration_], checkedWord(current_.number));
}

std::size_t Index::prepareInsert(std::uint32_t tag) {
  const std::size_t limit = current_.view.capacity() / 4 * 3;
  if (current_.used >= limit && !isCopying()) {
    allocateStep();
  }
  const auto slot = freeSlot(current_.view, tag);
  if (!slot || current_.used + 1 >= current_.view.capacity()) {
    throwSystemError(ENOSPC, place_.table, "add an entry to its index");
  }
  return *slot;
}

void Index::insert(std::size_t slot, std::uint32_t tag, std::uint32_t row) noexcept {
  const std::uint64_t word = IndexEntry::of(tag, row);
  put(current_, slot, word);
  if (isCopying() && slot < copied_) {
    putInto(*next_, word);
  }
}

void Index::erase(std::size_t slot) noexcept {
  const std::uint64_t word = loadWord(current_.view.entry(slot));
  if (isCopying() && slot < copied_) {
    const auto position = next_->view.find(
        IndexEntry::tagOf(word),
        [word](std::uint32_t candidate) { return candidate == IndexEntry::rowOf(word); });
    if (position) {  // the entry may have been damaged since it was copied
      remove(*next_, position->slot);
    }
  }
  remove(current_, slot);
}

void Index::eraseRow(std::uint32_t row) noexcept {
  for (std::size_t slot = 0; slot < current_.view.capacity(); ++slot) {
    const std::uint64_t word = loadWord(current_.view.entry(slot));
    if (IndexEntry::isLive(word) && IndexEntry::rowOf(word) == row) {
      erase(slot);
      return;
    }
  }
}

// The walk is bounded by the capacity: damage may make every entry look live.
std::optional<std::size_t> Index::freeSlot(const IndexView& view, std::uint32_t tag) noexcept {
  std::size_t slot = view.home(tag);
  for (std::size_t probes = 0; probes < view.capacity(); ++probes, slot = view.next(slot)) {
    if (!IndexEntry::isLive(loadWord(view.entry(slot)))) {
      return slot;
    }
  }
  return std::nullopt;
}

void Index::put(Generation& generation, std::size_t slot, std::uint64_t word) noexcept {
  std::uint64_t& entry = generation.view.entry(slot);
  if (loadWord(entry) == IndexEntry::empty_) {
    ++generation.used;
  }
  ++generation.live;
  storeWord(entry, word);
}

void Index::putInto(Generation& generation, std::uint64_t word) noexcept {
  if (const auto slot = freeSlot(generation.view, IndexEntry::tagOf(word))) {
    put(generation, *slot, word);
  }
}

// A search ends at an empty entry. A removed entry directly before an empty one is therefore made
// empty at once, and so are the removed entries before it. All others stay marked as removed.
void Index::remove(Generation& generation, std::size_t slot) noexcept {
  const IndexView& view = generation.view;
  generation.live -= generation.live > 0 ? 1U : 0U;  // damaged entries were never counted
  storeWord(view.entry(slot), IndexEntry::removed_);
  if (loadWord(view.entry(view.next(slot))) != IndexEntry::empty_) {
    return;
  }
  while (loadWord(view.entry(slot)) == IndexEntry::removed_) {
    storeWord(view.entry(slot), IndexEntry::empty_);
    generation.used -= generation.used > 0 ? 1U : 0U;
    slot = view.previous(slot);
  }
}

std::size_t Index::capacityWanted() const noexcept {
  const std::size_t capacity = current_.view.capacity();
  // With many removed and few live entries, a clean copy of the same size is enough.
  return current_.live > capacity / 4 ? 2 * capacity : capacity;
}

void Index::allocateStep() {
  if (!next_) {
    const std::size_t capacity = capacityWanted();
    replaced_.reserve(replaced_.size() + 1);
    next_ = makeGeneration(current_.number + 1, capacity);
    nextCapacity_ = capacity;
    copied_ = 0;
  }
  Korm::Segment& segment = *next_->segment;
  const std::size_t total = segmentBytes(nextCapacity_);
  segment.grow(std::min(total, segment.size() + bytesPerStep));
  if (segment.size() >= total) {
    next_->view = IndexView{segment.words() + entriesWord, nextCapacity_};
  }
}

void Index::copyStep() noexcept {
  const std::size_t end = std::min(copied_ + entriesPerStep, current_.view.capacity());
  for (; copied_ < end; ++copied_) {
    const std::uint64_t word = loadWord(current_.view.entry(copied_));
    if (IndexEntry::isLive(word)) {
      putInto(*next_, word);
    }
  }
}

void Index::advance() noexcept {
  ++steps_;
  const bool due = steps_ % stepsPerAllocation == 0;
  if (due) {
    releaseStep();
  }
  if (isCopying()) {
    copyStep();
    if (copied_ == current_.view.capacity()) {
      replaceCurrent();
    }
  } else if (due && current_.used >= current_.view.capacity() / 2) {
    try {
      allocateStep();
    } catch (const std::exception&) {
      // The generation in force still has room; prepareInsert() throws when it has none.
    }
  }
}

void Index::replaceCurrent() noexcept {
  Generation previous = std::exchange(current_, std::move(*next_));
  next_.reset();
  publish();
  if (previous.name) {
    Korm::unlinkSegment(*previous.name);
  }
  replaced_.push_back(std::move(previous.segment));
}

// Freeing many pages at once would stall the writer, so it frees them in small pieces, and only
// when no reader uses them any more.
void Index::releaseStep() noexcept {
  const auto alone = std::find_if(replaced_.begin(), replaced_.end(),
                                  [](const std::shared_ptr<Korm::Segment>& segment) {
                                    return segment.use_count() == 1 && segment->tryLockExclusive();
                                  });
  if (alone == replaced_.end()) {
    return;
  }
  const std::size_t size = (*alone)->size();
  if (size > bytesPerStep) {
    (*alone)->shrink(size - bytesPerStep);
  } else {
    replaced_.erase(alone);
  }
}

std::optional<std::string> Index::verify() const {
  if (auto violation = verify(current_)) {
    return violation;
  }
  if (!isCopying()) {
    return std::nullopt;
  }
  if (auto violation = verify(*next_)) {
    return "next generation: " + *violation;
  }
  std::size_t expected = 0;
  for (std::size_t slot = 0; slot < copied_; ++slot) {
    const std::uint64_t word = loadWord(current_.view.entry(slot));
    if (!IndexEntry::isLive(word)) {
      continue;
    }
    ++expected;
    if (!next_->view.find(IndexEntry::tagOf(word), [word](std::uint32_t candidate) {
          return candidate == IndexEntry::rowOf(word);
        })) {
      return "row " + std::to_string(IndexEntry::rowOf(word)) +
             " is missing in the next index generation";
    }
  }
  if (expected != next_->live) {
    return "the next index generation has " + std::to_string(next_->live) + " entries instead of " +
           std::to_string(expected);
  }
  return std::nullopt;
}

std::optional<std::string> Index::verify(const Generation& generation) {
  std::size_t live = 0;
  std::size_t used = 0;
  for (std::size_t slot = 0; slot < generation.view.capacity(); ++slot) {
    const std::uint64_t word = loadWord(generation.view.entry(slot));
    used += word != IndexEntry::empty_ ? 1 : 0;
    if (!IndexEntry::isLive(word)) {
      if (word != IndexEntry::empty_ && word != IndexEntry::removed_) {
        return "index slot " + std::to_string(slot) + " holds no valid entry";
      }
      continue;
    }
    ++live;
    const auto found = generation.view.find(
        IndexEntry::tagOf(word),
        [word](std::uint32_t candidate) { return candidate == IndexEntry::rowOf(word); });
    if (!found || found->slot != slot) {
      return "index slot " + std::to_string(slot) + " (row " +
             std::to_string(IndexEntry::rowOf(word)) + ") is not where a search ends";
    }
  }
  if (live != generation.live || used != generation.used) {
    return "the index counts " + std::to_string(generation.live) + " live and " +
           std::to_string(generation.used) + " used entries but has " + std::to_string(live) +
           " and " + std::to_string(used);
  }
  return std::nullopt;
}

}  // namespace Vasta
