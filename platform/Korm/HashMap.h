// A hash map for the framework's keyed collections.
//
// It differs from std::unordered_map in three ways. It grows in small steps: no insertion rehashes
// the whole map. Its elements lie in dense chunks, so that a walk is fast. The caller can hash a
// key once for several look-ups. docs/performance.md has the figures.
//
// Elements never move: a reference to one stays valid until that element is erased. An iterator
// stays valid across every change but clear(), even when its element is erased. The destructor of
// an element may read the map and, except during clear(), change it.
//
// Elements are stored in slots, and the slots in chunks that double in size. An index maps a hash
// to slots. It is cut into segments of 512 words, which a directory finds by the upper bits of the
// hash; a segment that is full splits in two. Hashes must therefore be well mixed: when more than
// 448 keys agree in the upper 22 bits of their hashes, inserting one throws std::length_error and
// leaves the map as it was.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Hash.h"
#include "platform/Korm/Prefetch.h"

namespace Korm {

// The part of the map that does not depend on its types: maps a hash to candidate slots.
class HashIndex {
 public:
  HashIndex() = default;
  HashIndex(const HashIndex&) = delete;
  HashIndex& operator=(const HashIndex&) = delete;
  ~HashIndex() { clear(); }

  // The slot of the element with this hash for which `matches(slot)` holds, or `none`.
  template <class Matches>
  [[nodiscard]] std::uint32_t find(std::uint32_t hash, Matches&& matches) const {
    if (directory_.empty()) {
      return none;
    }
    const std::uint64_t* const words = segment(hash);
    for (std::uint32_t at = hash & mask_; words[at] != 0; at = (at + 1) & mask_) {
      if (hashOf(words[at]) == hash && matches(slotOf(words[at]))) {
        return slotOf(words[at]);
      }
    }
    return none;
  }

  // Prefetches the words at which the search for this hash begins.
  void prefetch(std::uint32_t hash) const noexcept {
    if (!directory_.empty()) {
      Korm::prefetch(segment(hash) + (hash & mask_), sizeof(std::uint64_t));
    }
  }

  // Makes room for one more element with this hash, so that the next insert() cannot fail.
  // Throws: std::bad_alloc, or std::length_error when too many keys share the hash.
  void reserveFor(std::uint32_t hash);
  void insert(std::uint32_t hash, std::uint32_t slot) noexcept;
  void erase(std::uint32_t hash, std::uint32_t slot) noexcept;
  void clear() noexcept;
  // Asserts every invariant of the index; `count` is the number of elements it should hold.
  void verify(std::size_t count) const;

  static constexpr std::uint32_t none = 0xFFFFFFFFU;

 private:
  // The words of a segment are followed by one word of {depth, number of words in use}.
  static constexpr std::uint32_t fullSegment = 512;
  static constexpr std::uint32_t maxDepth = 22;

  [[nodiscard]] static std::uint32_t hashOf(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>(word >> 32);
  }
  [[nodiscard]] static std::uint32_t slotOf(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>(word) - 1;
  }
  [[nodiscard]] std::uint32_t directoryAt(std::uint32_t hash) const noexcept {
    return static_cast<std::uint32_t>(std::uint64_t{hash} >> (32 - depth_));
  }
  [[nodiscard]] std::uint64_t* segment(std::uint32_t hash) const noexcept {
    return directory_[directoryAt(hash)];
  }
  [[nodiscard]] std::uint32_t used(const std::uint64_t* words) const noexcept {
    return static_cast<std::uint32_t>(words[mask_ + 1]);
  }
  [[nodiscard]] std::uint32_t depth(const std::uint64_t* words) const noexcept {
    return static_cast<std::uint32_t>(words[mask_ + 1] >> 32);
  }
  void place(std::uint64_t* words, std::uint64_t word) noexcept;
  void growOnlySegment();
  void split(std::uint32_t hash);

  std::vector<std::uint64_t*> directory_;
  std::uint32_t mask_ = 0;   // words of a segment less one; all segments are of one size
  std::uint32_t depth_ = 0;  // the directory has 2^depth_ entries
};

template <class Key, class Value, class HashOf = Hash<Key>>
class HashMap {
 public:
  struct Entry {
    template <class K, class... Args>
    explicit Entry(K&& k, Args&&... args)
        : key(std::forward<K>(k)), value(std::forward<Args>(args)...) {}
    const Key key;
    Value value;
  };

  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  ~HashMap() { clear(); }

  template <class K>
  [[nodiscard]] static std::uint32_t hash(const K& key) noexcept {
    return HashOf{}(key);
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }

  // The element, or null.
  // Requires: `hash` is hash(key), where it is given.
  template <class K>
  [[nodiscard]] Entry* find(const K& key) noexcept {
    return find(key, hash(key));
  }
  template <class K>
  [[nodiscard]] Entry* find(const K& key, std::uint32_t hash) noexcept {
    const std::uint32_t slot = index_.find(
        hash, [&](std::uint32_t candidate) { return node(candidate).entry().key == key; });
    return slot == HashIndex::none ? nullptr : &node(slot).entry();
  }
  template <class K>
  [[nodiscard]] const Entry* find(const K& key) const noexcept {
    return const_cast<HashMap*>(this)->find(key);
  }
  template <class K>
  [[nodiscard]] const Entry* find(const K& key, std::uint32_t hash) const noexcept {
    return const_cast<HashMap*>(this)->find(key, hash);
  }

  // Prefetches the elements with these hashes, for a caller that has other work to do before it
  // looks them up. A look-up in a large map otherwise waits for memory twice.
  void prefetch(std::span<const std::uint32_t> hashes) const noexcept {
    for (const std::uint32_t hash : hashes) {
      index_.prefetch(hash);
    }
    for (const std::uint32_t hash : hashes) {
      prefetch(hash);
    }
  }
  void prefetch(std::uint32_t hash) const noexcept {
    const std::uint32_t slot = index_.find(hash, [](std::uint32_t) { return true; });
    if (slot != HashIndex::none) {
      Korm::prefetch(&node(slot), sizeof(Node));
    }
  }

  // The element with this key, made from `args` if there is none; true when it was made.
  template <class K, class... Args>
  std::pair<Entry&, bool> tryEmplace(const K& key, Args&&... args) {
    return tryEmplaceHashed(hash(key), key, std::forward<Args>(args)...);
  }
  template <class K, class... Args>
  std::pair<Entry&, bool> tryEmplaceHashed(std::uint32_t hash, const K& key, Args&&... args) {
    if (Entry* const present = find(key, hash)) {
      return {*present, false};
    }
    index_.reserveFor(hash);
    const std::uint32_t slot = allocate();
    Node& fresh = node(slot);
    try {
      ::new (static_cast<void*>(fresh.storage.data())) Entry(key, std::forward<Args>(args)...);
    } catch (...) {
      free(slot);
      throw;
    }
    fresh.hash = hash;
    fresh.state = live;
    index_.insert(hash, slot);
    ++size_;
    return {fresh.entry(), true};
  }

  // Removes the element; false when there is none.
  template <class K>
  bool erase(const K& key) noexcept {
    return erase(key, hash(key));
  }
  template <class K>
  bool erase(const K& key, std::uint32_t hash) noexcept {
    const std::uint32_t slot = index_.find(
        hash, [&](std::uint32_t candidate) { return node(candidate).entry().key == key; });
    if (slot == HashIndex::none) {
      return false;
    }
    index_.erase(hash, slot);
    --size_;
    Node& gone = node(slot);
    gone.state = noFree;  // before the destructor runs, which may call the map again
    gone.entry().~Entry();
    free(slot);
    return true;
  }

  void clear() noexcept {
    index_.clear();
    size_ = 0;
    for (std::uint32_t slot = 0; slot < slots_; ++slot) {
      if (Node& gone = node(slot); gone.state == live) {
        gone.state = noFree;
        gone.entry().~Entry();
      }
    }
    chunks_.clear();
    slots_ = 0;
    freeList_ = noFree;
  }

  template <bool isConst>
  class Iterator {
   public:
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using reference = std::conditional_t<isConst, const Entry&, Entry&>;
    using iterator_category = std::forward_iterator_tag;
    using Map = std::conditional_t<isConst, const HashMap, HashMap>;

    Iterator() = default;
    Iterator(Map& map, std::uint32_t slot) : map_{&map}, slot_{slot} { skipFree(); }

    reference operator*() const { return map_->node(slot_).entry(); }
    auto* operator->() const { return &map_->node(slot_).entry(); }
    Iterator& operator++() {
      ++slot_;
      skipFree();
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    // All positions behind the last slot are equal, however much the map has grown since.
    friend bool operator==(const Iterator& a, const Iterator& b) {
      return a.slot_ == b.slot_ || (a.atEnd() && b.atEnd());
    }

   private:
    [[nodiscard]] bool atEnd() const { return slot_ >= map_->slots_; }
    void skipFree() {
      while (slot_ < map_->slots_ && map_->node(slot_).state != live) {
        ++slot_;
      }
    }
    Map* map_ = nullptr;
    std::uint32_t slot_ = 0;
  };

  [[nodiscard]] auto begin() { return Iterator<false>{*this, 0}; }
  [[nodiscard]] auto end() { return Iterator<false>{*this, pastTheEnd}; }
  [[nodiscard]] auto begin() const { return Iterator<true>{*this, 0}; }
  [[nodiscard]] auto end() const { return Iterator<true>{*this, pastTheEnd}; }

  // Asserts every invariant of the map.
  void verify() const {
    index_.verify(size_);
    std::size_t count = 0;
    for (const Entry& entry : *this) {
      ++count;
      assertTrue(find(entry.key) == &entry, "every element is found under its key");
    }
    assertTrue(count == size_, "the size is the number of elements");
    for (std::uint32_t slot = freeList_; slot != noFree; slot = node(slot).state) {
      assertTrue(node(slot).state != live && ++count <= slots_, "free slots hold no element");
    }
    assertTrue(count == slots_, "a slot holds an element or is free");
  }

 private:
  // `state` of a node: live, or the next free slot, or noFree.
  static constexpr std::uint32_t live = 0xFFFFFFFFU;
  static constexpr std::uint32_t noFree = 0xFFFFFFFEU;
  static constexpr std::uint32_t pastTheEnd = 0xFFFFFFFFU;
  static constexpr std::uint32_t firstChunk = 8;

  struct Node {
    std::uint32_t hash;
    std::uint32_t state;
    alignas(Entry) std::array<std::byte, sizeof(Entry)> storage;
    [[nodiscard]] Entry& entry() noexcept {
      return *std::launder(reinterpret_cast<Entry*>(storage.data()));
    }
    [[nodiscard]] const Entry& entry() const noexcept {
      return *std::launder(reinterpret_cast<const Entry*>(storage.data()));
    }
  };

  // Chunk c holds firstChunk << c nodes, from slot firstChunk * (2^c - 1) on.
  [[nodiscard]] Node& node(std::uint32_t slot) noexcept {
    const std::uint32_t place = slot + firstChunk;
    const auto width = static_cast<std::uint32_t>(std::bit_width(place));
    return chunks_[width - std::bit_width(firstChunk)][place - (1U << (width - 1))];
  }
  [[nodiscard]] const Node& node(std::uint32_t slot) const noexcept {
    return const_cast<HashMap*>(this)->node(slot);
  }

  std::uint32_t allocate() {
    if (freeList_ != noFree) {
      const std::uint32_t slot = freeList_;
      freeList_ = node(slot).state;
      return slot;
    }
    const std::uint32_t place = slots_ + firstChunk;
    if (std::has_single_bit(place)) {
      chunks_.push_back(std::make_unique_for_overwrite<Node[]>(place));
    }
    return slots_++;
  }
  void free(std::uint32_t slot) noexcept {
    node(slot).state = freeList_;
    freeList_ = slot;
  }

  HashIndex index_;
  std::vector<std::unique_ptr<Node[]>> chunks_;
  std::uint32_t slots_ = 0;  // slots ever used; chunks hold at least as many nodes
  std::uint32_t freeList_ = noFree;
  std::size_t size_ = 0;
};

}  // namespace Korm
