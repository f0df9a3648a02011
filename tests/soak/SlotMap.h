// A map that is walked in the order of its slots, of which the one freed last is filled first: the
// order in which the switch's tables and collections are walked.
//
// Thread and process rule: a value.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace Soak {

template <class Key, class Value>
class SlotMap {
 public:
  [[nodiscard]] std::size_t size() const { return places_.size(); }
  [[nodiscard]] Value* find(const Key& key) {
    const auto place = places_.find(key);
    return place == places_.end() ? nullptr : &slots_[place->second]->second;
  }
  [[nodiscard]] const Value* find(const Key& key) const {
    return const_cast<SlotMap*>(this)->find(key);
  }
  // The value under the key, a default one if there is none. It stays in place until it is erased.
  Value& at(const Key& key) {
    if (Value* const present = find(key)) {
      return *present;
    }
    std::size_t slot = slots_.size();
    if (free_.empty()) {
      slots_.emplace_back();
    } else {
      slot = free_.back();
      free_.pop_back();
    }
    places_[key] = slot;
    return slots_[slot].emplace(key, Value{}).second;
  }
  bool erase(const Key& key) {
    const auto place = places_.find(key);
    if (place == places_.end()) {
      return false;
    }
    free_.push_back(place->second);
    slots_[place->second].reset();
    places_.erase(place);
    return true;
  }
  // Calls visit(key, value) for each; the map may change meanwhile.
  template <class Visit>
  void each(Visit visit) {
    for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
      if (slots_[slot]) {
        const Key key = slots_[slot]->first;
        visit(key, slots_[slot]->second);
      }
    }
  }
  template <class Visit>
  void each(Visit visit) const {
    for (const auto& slot : slots_) {
      if (slot) {
        visit(slot->first, slot->second);
      }
    }
  }

  [[nodiscard]] std::map<Key, Value> asMap() const {
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
