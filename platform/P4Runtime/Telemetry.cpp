#include "platform/P4Runtime/Telemetry.h"

#include <algorithm>

namespace P4Runtime {

std::optional<Telemetry::Timestamp> Telemetry::newest(EntryHandle handle,
                                                      TelemetryTimestampType type) const {
  const std::uint64_t kept = std::min<std::uint64_t>(total_, capacity);
  for (std::uint64_t back = 1; back <= kept; ++back) {
    const Timestamp& stamp = stamps_[(total_ - back) % capacity];
    if (stamp.handle == handle && stamp.type == type) {
      return stamp;
    }
  }
  return std::nullopt;
}

}  // namespace P4Runtime
