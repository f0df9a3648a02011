// Keyed collection attributes of entities.
#pragma once

#include <optional>
#include <utility>

#include "platform/Korm/HashMap.h"
#include "platform/Korm/Notification.h"

namespace Korm {

// A keyed collection that tells its reactors the key of every change, and nothing else.
template <class Key, class Value>
class Collection {
 public:
  using Map = HashMap<Key, Value>;
  using Notifiees = NotifieeList<const Key&>;

  // Inserts or overwrites.
  void is(const Key& key, Value value) {
    const auto [entry, inserted] = map_.tryEmplace(key, std::move(value));
    if (!inserted) {
      entry.value = std::move(value);  // tryEmplace leaves it alone when the key is present
    }
    notifiees_.notify(key);
  }

  // The value removed, if there was one; only then are the reactors told.
  std::optional<Value> del(const Key& key) {
    auto* const entry = map_.find(key);
    if (entry == nullptr) {
      return std::nullopt;
    }
    std::optional<Value> removed{std::move(entry->value)};
    const Key copy = entry->key;  // `key` may stand in the element that goes
    map_.erase(copy);
    notifiees_.notify(copy);
    return removed;
  }

  // Removes the elements one by one, telling each.
  void delAll() {
    for (auto& entry : map_) {
      del(entry.key);
    }
  }

  // The value, or null.
  template <class K>
  [[nodiscard]] const Value* find(const K& key) const noexcept {
    const auto* const entry = map_.find(key);
    return entry == nullptr ? nullptr : &entry->value;
  }

  [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }
  [[nodiscard]] bool empty() const noexcept { return map_.empty(); }
  [[nodiscard]] auto begin() const { return map_.begin(); }
  [[nodiscard]] auto end() const { return map_.end(); }
  [[nodiscard]] Notifiees& notifiees() const noexcept { return notifiees_; }

 private:
  Map map_;
  mutable Notifiees notifiees_;
};

}  // namespace Korm
