// The direct counters of flow entries.
//
// Threads: the activity thread. Reads only.
// Ownership: holds a reference to the directory of hardware statuses.
#pragma once

#include <cstdint>

#include "platform/Korm/Dir.h"
#include "platform/P4Runtime/Counter.h"

namespace Ostra {

// The id under which the library registers its reader of direct counters.
inline constexpr std::uint32_t directCounterId = 0;

// Answers the service's reads of the direct counter of a flow entry.
class FlowDirectCounterImpl final : public P4Runtime::CounterImpl {
 public:
  // Entities of the directory that are not an OpenFlowTable::HwStatus are skipped.
  // Requires: `dir` is not null.
  explicit FlowDirectCounterImpl(Korm::Ptr<Korm::Dir> dir);

  // Packets and bytes of the entry's flow, summed over all hardware statuses that have it. All zero
  // if none has it.
  [[nodiscard]] P4Runtime::P4CounterData getCounters(std::uint64_t entryId) const override;

 private:
  const Korm::Ptr<Korm::Dir> dir_;
};

}  // namespace Ostra
