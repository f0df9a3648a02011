// Time stamps of transactions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "platform/Korm/Clock.h"
#include "platform/Korm/Entity.h"
#include "platform/P4Runtime/Types.h"

namespace P4Runtime {

// The stages of a transaction, in their order.
enum class TelemetryTimestampType : std::uint8_t {
  received_ = 0,
  stored_ = 1,
  configured_ = 2,  // handed to the static-flow feature
  programmed_ = 3,
};

// Keeps the newest `capacity` time stamps. For the activity thread.
class Telemetry final : public Korm::Entity {
 public:
  static constexpr std::size_t capacity = 4096;

  struct Timestamp {
    EntryHandle handle;
    TelemetryTimestampType type{};
    double time = 0;  // seconds since the epoch
  };

  void newTransactionTimestamp(EntryHandle handle, TelemetryTimestampType type) {
    stamps_[total_++ % capacity] = {handle, type, Korm::currentTime()};
  }
  // How many have been taken, kept or not.
  [[nodiscard]] std::uint64_t total() const noexcept { return total_; }
  // Calls visit(stamp) for each that is kept, oldest first.
  template <class Visit>
  void forEachKept(Visit visit) const {
    for (std::uint64_t number = total_ > capacity ? total_ - capacity : 0; number < total_;
         ++number) {
      visit(stamps_[number % capacity]);
    }
  }
  // The newest time stamp of that handle and type, if it is still kept.
  [[nodiscard]] std::optional<Timestamp> newest(EntryHandle handle,
                                                TelemetryTimestampType type) const;

 private:
  std::array<Timestamp, capacity> stamps_{};
  std::uint64_t total_ = 0;
};

}  // namespace P4Runtime
