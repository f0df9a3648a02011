// A hash set for the framework's keyed collections: the keys of a HashMap without values.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Korm/HashMap.h"

namespace Korm {

template <class Key, class HashOf = Hash<Key>>
class HashSet {
 public:
  // Adds the key; false when it is there already.
  // Requires: `hash` is the key's, where it is given.
  bool insert(const Key& key) { return map_.tryEmplace(key).second; }
  bool insert(const Key& key, std::uint32_t hash) {
    return map_.tryEmplaceHashed(hash, key).second;
  }
  // Removes the key; false when it is not there.
  bool erase(const Key& key) noexcept { return map_.erase(key); }
  bool erase(const Key& key, std::uint32_t hash) noexcept { return map_.erase(key, hash); }

  [[nodiscard]] bool contains(const Key& key) const noexcept { return map_.find(key) != nullptr; }
  [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }

  // Asserts every invariant of the set.
  void verify() const { map_.verify(); }

 private:
  struct NoValue {};

  HashMap<Key, NoValue, HashOf> map_;
};

}  // namespace Korm
