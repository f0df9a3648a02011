// The direct counters of flow entries.
//
// Thread and process rule: the activity thread; reads only.
// Ownership: holds a reference to the directory of hardware statuses.
#pragma once

#include <cstdint>

#include "platform/Korm/Dir.h"
#include "platform/P4Runtime/Counter.h"

namespace Ostra {

// Answers the service's reads of a flow entry's direct counter from what the hardware counted.
class FlowDirectCounterImpl final : public P4Runtime::CounterImpl {
 public:
  // `dir` is not null. Of its entities, those that are an OpenFlowTable::HwStatus count.
  explicit FlowDirectCounterImpl(Korm::Ptr<Korm::Dir> dir);

  // Packets and bytes of the entry's flow, summed over all hardware statuses that have it; all zero when
  // none has.
  [[nodiscard]] P4Runtime::P4CounterData getCounters(std::uint64_t entryId) const override;

 private:
  const Korm::Ptr<Korm::Dir> dir_;
};

}  // namespace Ostra
