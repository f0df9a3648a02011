// A reactor for tests: remembers the keys that it hears, and may do something back.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "platform/Korm/Notification.h"

namespace TestSupport {

template <class Key>
class Heard final : public Korm::Notifiee<const Key&> {
 public:
  using Action = std::function<void(const Key&)>;
  explicit Heard(Korm::NotifieeList<const Key&>& list, Action action = {})
      : action_{std::move(action)} {
    list.attach(*this);
  }
  void onAttribute(const Key& key) override {
    keys_.push_back(key);
    if (const Action action = action_) {
      action(key);
    }
  }
  // Called for every key from now on.
  void actionIs(Action action) { action_ = std::move(action); }
  // The keys since the last call.
  std::vector<Key> take() { return std::exchange(keys_, {}); }

 private:
  std::vector<Key> keys_;
  Action action_;
};

}  // namespace TestSupport
