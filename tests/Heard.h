// Reactors for tests: they count or remember what they hear, and may do something back.
#pragma once

#include "platform/Korm/Notification.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "tests/Testing.h"

namespace TestSupport {

// Counts what an attribute tells, and reacts to it.
template <class... Args>
class Listener final : public Korm::Notifiee<Args...> {
 public:
  using Action = std::function<void(Args...)>;
  explicit Listener(Korm::NotifieeList<Args...>& list, Action action = {})
      : action_{std::move(action)} {
    list.attach(*this);
  }
  void onAttribute(Args... args) override {
    ++count_;
    if (const Action action = action_) {
      action(args...);
    }
  }
  // Called for every change from now on.
  void actionIs(Action action) { action_ = std::move(action); }
  // Done once, at the next change.
  void nextIs(std::function<void()> act) {
    action_ = [this, act = std::move(act)](Args...) {
      action_ = nullptr;
      act();
    };
  }
  // The number of changes since the last call.
  int take() { return std::exchange(count_, 0); }

 private:
  Action action_;
  int count_ = 0;
};

// Remembers the keys that it hears.
template <class Key>
class Heard {
 public:
  using Action = std::function<void(const Key&)>;
  explicit Heard(Korm::NotifieeList<const Key&>& list)
      : listener_{list, [this](const Key& key) {
                    keys_.push_back(key);
                    if (const Action action = action_) {
                      action(key);
                    }
                  }} {}
  // Called for every key from now on.
  void actionIs(Action action) { action_ = std::move(action); }
  // The keys since the last call.
  std::vector<Key> take() { return std::exchange(keys_, {}); }
  [[nodiscard]] bool attached() const { return listener_.attached(); }

 private:
  std::vector<Key> keys_;
  Action action_;
  Listener<const Key&> listener_;
};

// Remembers the results that the service is told: "7 notFound: Group id: 3 is not found", with
// "dependent " before those that are for a root entry.
class Results {
 public:
  using Told = P4Runtime::TransactionResult;
  explicit Results(P4Runtime::BatchStatus& batchStatus)
      : listener_{batchStatus.resultNotifiees(), [this](const Told& result) {
                    if (const auto action = std::exchange(action_, nullptr)) {
                      action(result);
                    }
                    texts_.push_back(
                        (result.dependent ? "dependent " : "") + std::to_string(result.handle) +
                        " " + P4Runtime::errorCodeText(result.code) +
                        (result.message.empty() ? "" : ": ") + std::string{result.message});
                  }} {}
  // Called once, before the next result is remembered.
  void actionIs(std::function<void(const Told&)> action) { action_ = std::move(action); }
  // Those since the last call.
  Texts takeEach() { return std::exchange(texts_, {}); }
  // The same in one text, with "; " between.
  std::string take() {
    std::string all;
    for (const std::string& text : takeEach()) {
      all += (all.empty() ? "" : "; ") + text;
    }
    return all;
  }

 private:
  std::function<void(const Told&)> action_;
  Texts texts_;
  Listener<const Told&> listener_;
};

}  // namespace TestSupport
