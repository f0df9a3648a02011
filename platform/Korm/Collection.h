// Keyed collection attributes of entities.
#pragma once

#include <exception>
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
      // tryEmplace leaves it alone when the key is present.
      entry.value = std::move(value);  // NOLINT(bugprone-use-after-move)
    }
    if (!notifiees_.empty()) {
      const Key copy = key;  // `key` may stand in an element that a reactor removes
      notifiees_.notify(copy);
    }
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

  // Removes the elements one by one, telling each. An exception from a reactor leaves when all have
  // gone. The collection must not be destroyed meanwhile.
  void delAll() {
    std::exception_ptr first;
    for (auto& entry : map_) {
      try {
        del(entry.key);
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
