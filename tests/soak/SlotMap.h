// A map that is walked in the order of its slots. The slot that was freed last is filled first. The
// switch's tables and collections are walked in the same order.
//
// Thread and process rule: a value.
#pragma once

#include <deque>

#include "tests/Testing.h"

namespace Soak {

template <class Key, class Value>
class SlotMap {
 public:
  [[nodiscard]] std::size_t size() const { return places_.size(); }
  [[nodiscard]] Value* find(const Key& key) {
    const auto place = places_.find(key);
    return place == places_.end() ? nullptr : &slots_[place->second]->second;
  }
  // The value under the key, a default one if there is none. It stays in place until it is erased.
  Value& at(const Key& key) {
    if (Value* const present = find(key)) {
      return *present;
    }
    if (free_.empty()) {
      free_.push_back(slots_.size());
      slots_.emplace_back();
    }
    const std::size_t slot = places_[key] = free_.back();
    free_.pop_back();
    return slots_[slot].emplace(key, Value{}).second;
  }
  bool erase(const Key& key) {
    const auto place = places_.extract(key);
    if (!place.empty()) {
      free_.push_back(place.mapped());
      slots_[place.mapped()].reset();
    }
    return !place.empty();
  }
  // Calls visit(key, value) for each; the map may change meanwhile.
  void each(auto visit) {
    for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
      if (slots_[slot]) {
        visit(Key{slots_[slot]->first}, slots_[slot]->second);
      }
    }
  }
  [[nodiscard]] std::map<Key, Value> asMap() {
    std::map<Key, Value> all;
    each([&all](const Key& key, const Value& value) { all.emplace(key, value); });
    return all;
  }

 private:
  std::map<Key, std::size_t> places_;
  std::deque<std::optional<std::pair<const Key, Value>>> slots_;
  std::vector<std::size_t> free_;
};

}  // namespace Soak
