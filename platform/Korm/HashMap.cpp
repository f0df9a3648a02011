#include "platform/Korm/HashMap.h"

#include <algorithm>
#include <stdexcept>

namespace Korm {
namespace {

constexpr std::uint32_t smallestSegment = 8;

std::uint64_t* makeSegment(std::uint32_t words, std::uint32_t depth) {
  auto* const segment = new std::uint64_t[words + 1]();
  segment[words] = std::uint64_t{depth} << 32;
  return segment;
}

}  // namespace

void HashIndex::reserveFor(std::uint32_t hash) {
  if (directory_.empty()) {
    directory_.reserve(1);
    directory_.push_back(makeSegment(smallestSegment, 0));
    mask_ = smallestSegment - 1;
  }
  // At least one word in eight stays empty, so that every probe ends soon.
  while (used(segment(hash)) + 1 > (mask_ + 1) / 8 * 7) {
    if (mask_ + 1 < fullSegment) {
      growOnlySegment();
    } else {
      split(hash);
    }
  }
}

void HashIndex::place(std::uint64_t* words, std::uint64_t word) noexcept {
  std::uint32_t at = hashOf(word) & mask_;
  while (words[at] != 0) {
    at = (at + 1) & mask_;
  }
  words[at] = word;
  ++words[mask_ + 1];
}

void HashIndex::insert(std::uint32_t hash, std::uint32_t slot) noexcept {
  place(segment(hash), (std::uint64_t{hash} << 32) | (slot + 1));
}

void HashIndex::erase(std::uint32_t hash, std::uint32_t slot) noexcept {
  std::uint64_t* const words = segment(hash);
  std::uint32_t hole = hash & mask_;
  while (slotOf(words[hole]) != slot) {
    hole = (hole + 1) & mask_;
  }
  // Move words back into the gap where their probe sequences allow it, so that no tombstones are
  // needed.
  for (std::uint32_t at = (hole + 1) & mask_; words[at] != 0; at = (at + 1) & mask_) {
    const std::uint32_t home = hashOf(words[at]) & mask_;
    if (((at - home) & mask_) >= ((at - hole) & mask_)) {
      words[hole] = words[at];
      hole = at;
    }
  }
  words[hole] = 0;
  --words[mask_ + 1];
}

void HashIndex::growOnlySegment() {
  std::uint64_t* const old = directory_.front();
  const std::uint32_t oldWords = mask_ + 1;
  directory_.front() = makeSegment(oldWords * 2, 0);
  mask_ = oldWords * 2 - 1;
  std::for_each_n(old, oldWords, [this](std::uint64_t word) {
    if (word != 0) {
      place(directory_.front(), word);
    }
  });
  delete[] old;
}

void HashIndex::split(std::uint32_t hash) {
  const std::uint32_t oldDepth = depth(segment(hash));
  if (oldDepth == depth_) {
    if (depth_ == maxDepth) {
      throw std::length_error{"HashIndex: too many keys with one hash"};
    }
    std::vector<std::uint64_t*> doubled(directory_.size() * 2);
    for (std::size_t at = 0; at < doubled.size(); ++at) {
      doubled[at] = directory_[at / 2];
    }
    directory_.swap(doubled);
    ++depth_;
  }
  std::uint64_t* const low = segment(hash);
  std::uint64_t* const high = makeSegment(fullSegment, oldDepth + 1);
  std::array<std::uint64_t, fullSegment> words{};
  std::copy_n(low, fullSegment, words.begin());
  std::fill_n(low, fullSegment, 0);
  low[fullSegment] = std::uint64_t{oldDepth + 1} << 32;
  for (const std::uint64_t word : words) {
    if (word != 0) {
      place((hashOf(word) >> (31 - oldDepth) & 1) != 0 ? high : low, word);
    }
  }
  // The directory entries of one segment are adjacent. The upper half of them goes to the new
  // segment.
  const std::uint32_t entries = 1U << (depth_ - oldDepth);
  const std::uint32_t first = directoryAt(hash) & ~(entries - 1);
  std::fill_n(directory_.begin() + first + entries / 2, entries / 2, high);
}

void HashIndex::clear() noexcept {
  const std::uint64_t* last = nullptr;
  for (std::uint64_t* const words : directory_) {
    if (words != last) {
      last = words;
      delete[] words;
    }
  }
  directory_.clear();
  mask_ = 0;
  depth_ = 0;
}

void HashIndex::verify(std::size_t count) const {
  std::size_t found = 0;
  const std::uint64_t* last = nullptr;
  for (const std::uint64_t* const words : directory_) {
    if (words == last) {
      continue;
    }
    last = words;
    std::size_t here = 0;
    for (std::uint32_t at = 0; at <= mask_; ++at) {
      if (words[at] != 0) {
        ++here;
        assertTrue(segment(hashOf(words[at])) == words, "a word stands in the segment of its hash");
        assertTrue(find(hashOf(words[at]),
                        [&](std::uint32_t slot) { return slot == slotOf(words[at]); }) != none,
                   "no gap stands before a word");
      }
    }
    assertTrue(here == used(words), "a segment counts its words");
    assertTrue(here < mask_ + 1, "a segment is never full");
    found += here;
  }
  assertTrue(found == count, "the index holds every element once");
}

}  // namespace Korm
