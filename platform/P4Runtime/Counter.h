// Counter readers and their registry.
#pragma once

#include <cstdint>
#include <map>

#include "platform/Korm/Entity.h"

namespace P4Runtime {

// The values of a counter. The first field belongs to meters; direct counters do not use it.
struct P4CounterData {
  std::uint64_t meterTokens = 0;
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  friend bool operator==(const P4CounterData&, const P4CounterData&) noexcept = default;
};

// Reads one kind of counter.
class CounterImpl : public Korm::Entity {
 public:
  // The counts of an entry; zeros for an entry without a counter.
  [[nodiscard]] virtual P4CounterData getCounters(std::uint64_t entryId) const = 0;
};

// The readers by counter id. For the activity thread.
class P4RuntimeCounterHelper final : public Korm::Entity {
 public:
  // Registers a reader; null removes the present one.
  void counterImplMapIs(std::uint32_t counterId, Korm::Ptr<CounterImpl> reader) {
    if (reader) {
      readers_[counterId] = std::move(reader);
    } else {
      readers_.erase(counterId);
    }
  }
  // Null when there is none.
  [[nodiscard]] Korm::Ptr<CounterImpl> counterImplMap(std::uint32_t counterId) const {
    const auto found = readers_.find(counterId);
    return found == readers_.end() ? nullptr : found->second;
  }

 private:
  std::map<std::uint32_t, Korm::Ptr<CounterImpl>> readers_;
};

}  // namespace P4Runtime
