// The index of a table: open addressing over words of {hash of the key, row}.
//
// Each generation is one segment: a few words that describe it, then a power of two of entries.
// When a generation gets full, the next one is allocated and filled a little with every change, so
// that no single change has to wait. Until it is complete, changes go to both. Then its number in
// the table's header makes it the generation in force.
//
// Readers look up while the writer changes the index. An entry never moves within a generation. An
// entry between the start of a key's search and the key's own entry never becomes empty: a removed
// entry is only marked, unless an empty one follows it. So a reader finds every key that is present
// during the whole search, or sees afterwards that the generation has changed.
//
// Threads: IndexView::find may be called by any thread or process, Index only by the table's
// writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Korm/Prefetch.h"
#include "platform/Vasta/Layout.h"
#include "platform/Vasta/SegmentSource.h"

namespace Vasta {

namespace IndexEntry {
inline constexpr std::uint64_t empty_ = 0;
inline constexpr std::uint64_t removed_ = 1;
inline constexpr std::uint64_t firstRow_ = 2;  // row 0 is stored as this number

[[nodiscard]] constexpr std::uint64_t of(std::uint32_t tag, std::uint32_t row) noexcept {
  return (std::uint64_t{tag} << 32U) | (row + firstRow_);
}
[[nodiscard]] constexpr bool isLive(std::uint64_t entry) noexcept {
  return static_cast<std::uint32_t>(entry) >= firstRow_;
}
[[nodiscard]] constexpr std::uint32_t tagOf(std::uint64_t entry) noexcept {
  return static_cast<std::uint32_t>(entry >> 32U);
}
[[nodiscard]] constexpr std::uint32_t rowOf(std::uint64_t entry) noexcept {
  return static_cast<std::uint32_t>(entry) - static_cast<std::uint32_t>(firstRow_);
}
}  // namespace IndexEntry

inline constexpr std::uint32_t maximumRows = 0xFFFF'FFF0U;

struct IndexPosition {
  std::size_t slot;
  std::uint32_t row;
};

// One mapped generation, for look-ups.
class IndexView {
 public:
  IndexView() = default;
  // `capacity` entries at `entries`, a power of two of at least 2.
  IndexView(std::uint64_t* entries, std::size_t capacity) noexcept;
  // The view of a complete segment.
  // Throws: AttachError when it is not an index of the table whose rows segment has that identity.
  IndexView(const Korm::Segment& segment, std::uint64_t generation, std::uint64_t identity,
            const std::string& table);

  [[nodiscard]] std::size_t capacity() const noexcept { return mask_ + 1; }
  [[nodiscard]] std::uint64_t& entry(std::size_t slot) const noexcept { return entries_[slot]; }
  [[nodiscard]] std::size_t next(std::size_t slot) const noexcept { return (slot + 1) & mask_; }
  [[nodiscard]] std::size_t previous(std::size_t slot) const noexcept { return (slot - 1) & mask_; }
  // Where the search for a hash begins.
  [[nodiscard]] std::size_t home(std::uint32_t tag) const noexcept {
    return static_cast<std::size_t>((tag * 0x9E3779B97F4A7C15U) >> shift_);
  }

  // Prefetches the entries at which the search for a hash begins.
  void prefetch(std::uint32_t tag) const noexcept {
    Korm::prefetch(&entries_[home(tag)], wordSize);
  }

  // The first entry with this hash for which `matches(row)` is true.
  template <class Matches>
  [[nodiscard]] std::optional<IndexPosition> find(std::uint32_t tag, Matches&& matches) const {
    std::size_t slot = home(tag);
    for (std::size_t probes = 0; probes <= mask_; ++probes, slot = next(slot)) {
      const std::uint64_t word = loadWord(entries_[slot]);
      if (word == IndexEntry::empty_) {
        return std::nullopt;
      }
      if (IndexEntry::tagOf(word) == tag && IndexEntry::isLive(word) &&
          matches(IndexEntry::rowOf(word))) {
        return IndexPosition{slot, IndexEntry::rowOf(word)};
      }
    }
    return std::nullopt;
  }

 private:
  std::uint64_t* entries_ = nullptr;
  std::size_t mask_ = 0;
  unsigned shift_ = 63;
};

// The writer's side. Owns the generation in force and the one that is being built.
class Index {
 public:
  struct Place {
    std::optional<SegmentNames> names;  // none: anonymous segments
    std::shared_ptr<LocalSegments> local;
    std::uint64_t* header;  // the table's header words
    std::string table;
  };

  // An empty index, not published yet, for at least `rows` rows.
  // Throws: std::system_error.
  Index(Place place, std::uint64_t generation, std::size_t rows);

  // Makes this generation the one in force.
  void publish() noexcept;

  void prefetch(std::uint32_t tag) const noexcept { current_.view.prefetch(tag); }
  template <class Matches>
  [[nodiscard]] std::optional<IndexPosition> find(std::uint32_t tag, Matches&& matches) const {
    return current_.view.find(tag, matches);
  }

  // The slot for an entry with this hash.
  // Throws: std::system_error when there is no room for one more entry and no memory for a larger
  // generation, or when damaged entries take all the room.
  [[nodiscard]] std::size_t prepareInsert(std::uint32_t tag);
  // Requires: `slot` is from prepareInsert(tag), the index has not changed since, and the key is
  // not there.
  void insert(std::size_t slot, std::uint32_t tag, std::uint32_t row) noexcept;
  void erase(std::size_t slot) noexcept;
  // Removes a row whose key is damaged, so that its hash is unknown. Looks at every entry.
  void eraseRow(std::uint32_t row) noexcept;
  // Does a bounded part of the work on the next generation and of the release of previous ones.
  // Called once per insertion and removal. When memory runs out here, that only delays the next
  // generation.
  void advance() noexcept;

  [[nodiscard]] std::size_t size() const noexcept { return current_.live; }
  // The first violated invariant of the index itself, in words. Whether its entries agree with the
  // rows is for the table to check.
  [[nodiscard]] std::optional<std::string> verify() const;

 private:
  struct Generation {
    std::uint64_t number = 0;
    std::optional<Korm::SegmentName> name;  // of the segment; none: anonymous
    std::shared_ptr<Korm::Segment> segment;
    IndexView view;
    std::size_t live = 0;
    std::size_t used = 0;  // live and removed entries
  };

  [[nodiscard]] static std::size_t segmentBytes(std::size_t capacity) noexcept;
  [[nodiscard]] Generation makeGeneration(std::uint64_t number, std::size_t capacity) const;
  static void complete(Generation& generation, std::uint64_t identity) noexcept;
  // The first slot without a live entry in the probe sequence of this hash, if there is one.
  [[nodiscard]] static std::optional<std::size_t> freeSlot(const IndexView& view,
                                                           std::uint32_t tag) noexcept;
  static void put(Generation& generation, std::size_t slot, std::uint64_t word) noexcept;
  static void putInto(Generation& generation, std::uint64_t word) noexcept;
  static void remove(Generation& generation, std::size_t slot) noexcept;
  [[nodiscard]] bool isCopying() const noexcept {
    return next_.has_value() && next_->view.capacity() == nextCapacity_;
  }
  [[nodiscard]] std::size_t capacityWanted() const noexcept;
  void allocateStep();
  void copyStep() noexcept;
  void replaceCurrent() noexcept;
  void releaseStep() noexcept;
  [[nodiscard]] static std::optional<std::string> verify(const Generation& generation);

  // Constant after construction.
  const Place place_;
  // The writer's thread.
  Generation current_;
  std::optional<Generation> next_;
  std::size_t nextCapacity_ = 0;  // entries that next_ will have once it is allocated
  std::size_t copied_ = 0;        // entries of current_ below this are in next_ too
  std::uint64_t steps_ = 0;
  std::vector<std::shared_ptr<Korm::Segment>> replaced_;
};

}  // namespace Vasta
