// Counter readers and their registry.
#pragma once

#include <cstdint>
#include <map>

#include "platform/Korm/Entity.h"

namespace P4Runtime {

// What a counter holds. The first field is the meter's, unused by direct counters.
struct P4CounterData {
  std::uint64_t meterTokens = 0;
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  friend bool operator==(const P4CounterData&, const P4CounterData&) noexcept = default;
};

// Reads one kind of counter.
class CounterImpl : public Korm::Entity {
 public:
  // The counts of an entry; zeros for an entry that has none.
  [[nodiscard]] virtual P4CounterData getCounters(std::uint64_t entryId) const = 0;
};

// The readers by counter id. The activity thread's.
class P4RuntimeCounterHelper final : public Korm::Entity {
 public:
  // Registers a reader; a null one removes the present one.
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
