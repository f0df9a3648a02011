// What the tests of status and counters share: listeners that remember what they heard.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/Notification.h"
#include "platform/P4Runtime/BatchStatus.h"

namespace StatusTest {

// A result as the service hears it.
struct Heard {
  std::uint64_t handle = 0;
  std::uint32_t code = 0;
  std::string message;
  bool dependent = false;

  bool operator==(const Heard&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Heard& heard) {
    return out << heard.handle << ":" << heard.code << (heard.dependent ? " dependent" : "") << " "
               << heard.message;
  }
};

// The service's ear at a batch status.
class Results final : public Korm::Notifiee<const P4Runtime::TransactionResult&> {
 public:
  explicit Results(const P4Runtime::BatchStatus& batch) { batch.resultNotifiees().attach(*this); }

  void onAttribute(const P4Runtime::TransactionResult& result) override {
    heard_.push_back({result.handle, static_cast<std::uint32_t>(result.code),
                      std::string{result.message}, result.dependent});
    if (then) {
      then(heard_.back().handle);
    }
  }
  std::vector<Heard> take() { return std::exchange(heard_, {}); }

  // What the service does on the spot when it hears of a result for that handle.
  std::function<void(std::uint64_t handle)> then;

 private:
  std::vector<Heard> heard_;
};

using AllHeard = std::vector<Heard>;

// Remembers the keys that a collection told.
template <class Key>
class Keys final : public Korm::Notifiee<const Key&> {
 public:
  explicit Keys(Korm::NotifieeList<const Key&>& list) { list.attach(*this); }
  void onAttribute(const Key& key) override { heard_.push_back(key); }
  std::vector<Key> take() { return std::exchange(heard_, {}); }

 private:
  std::vector<Key> heard_;
};

// A key that matches one layer-4 port.
[[nodiscard]] inline Ostra::OstraKey portKey(std::uint16_t port) {
  Ostra::OstraKey key;
  key.l4DstPortIs(port, 0xFFFF);
  return key;
}

}  // namespace StatusTest
