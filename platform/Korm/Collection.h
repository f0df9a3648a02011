// Keyed collection attributes of entities.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

#include "platform/Korm/HashMap.h"
#include "platform/Korm/Notification.h"

namespace Korm {

// A keyed collection that tells its reactors the key of every change, and nothing else.
//
// A look-up accepts any type that compares with a key and has the same hash. An overload with a
// hash is for a caller that has computed it before. Requires: the hash is Map::hash(key).
template <class Key, class Value>
class Collection {
 public:
  using Map = HashMap<Key, Value>;
  using Notifiees = NotifieeList<const Key&>;

  // Inserts or overwrites.
  void is(const Key& key, Value value) {
    const auto [entry, inserted] = map_.tryEmplace(key, std::move(value));
    if (!inserted) {
      // tryEmplace does not move from the value when the key is present.
      entry.value = std::move(value);  // NOLINT(bugprone-use-after-move)
    }
    tell(key);
  }

  // The element, made from `args` if it is missing; true when it was made. Notifies nobody: the
  // caller calls tell() once it has filled the element in.
  template <class K, class... Args>
  std::pair<Value&, bool> make(const K& key, std::uint32_t hash, Args&&... args) {
    const auto [entry, made] = map_.tryEmplaceHashed(hash, key, std::forward<Args>(args)...);
    return {entry.value, made};
  }
  template <class K>
  void tell(const K& key) const {
    if (!notifiees_.empty()) {
      const Key copy{key};  // `key` may be part of an element that a reactor removes
      notifiees_.notify(copy);
    }
  }

  // Removes the element; false when there is none, and then nobody is notified.
  template <class K>
  bool erase(const K& key, std::uint32_t hash) {
    if (notifiees_.empty()) {
      return map_.erase(key, hash);
    }
    const Key copy{key};  // `key` may be part of the element that is erased
    if (!map_.erase(copy, hash)) {
      return false;
    }
    notifiees_.notify(copy);
    return true;
  }
  bool erase(const Key& key) { return erase(key, Map::hash(key)); }

  // Removes the element and returns its value; nothing when there is none, and then nobody is
  // notified.
  std::optional<Value> del(const Key& key) {
    auto* const entry = map_.find(key);
    if (entry == nullptr) {
      return std::nullopt;
    }
    std::optional<Value> removed{std::move(entry->value)};
    erase(entry->key);
    return removed;
  }

  // Removes the elements one by one and notifies of each.
  // Requires: no reactor destroys the collection.
  // Throws: the first exception of a reactor, once all elements are gone.
  void delAll() {
    std::exception_ptr first;
    for (auto& entry : map_) {
      try {
        erase(entry.key);
      } catch (...) {
        if (!first) {
          first = std::current_exception();
        }
      }
    }
    if (first) {
      std::rethrow_exception(std::move(first));
    }
  }

  // The value, or null.
  template <class K>
  [[nodiscard]] const Value* find(const K& key) const noexcept {
    return find(key, Map::hash(key));
  }
  template <class K>
  [[nodiscard]] const Value* find(const K& key, std::uint32_t hash) const noexcept {
    const auto* const entry = map_.find(key, hash);
    return entry == nullptr ? nullptr : &entry->value;
  }
  template <class K>
  [[nodiscard]] Value* find(const K& key, std::uint32_t hash) noexcept {
    return const_cast<Value*>(std::as_const(*this).find(key, hash));
  }

  [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }
  [[nodiscard]] bool empty() const noexcept { return map_.empty(); }
  // Entries {key, value}.
  [[nodiscard]] const Map& map() const noexcept { return map_; }
  [[nodiscard]] auto begin() const { return map_.begin(); }
  [[nodiscard]] auto end() const { return map_.end(); }
  [[nodiscard]] Notifiees& notifiees() const noexcept { return notifiees_; }

 private:
  Map map_;
  mutable Notifiees notifiees_;
};

}  // namespace Korm
