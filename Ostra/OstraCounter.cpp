#include "Ostra/OstraCounter.h"

#include "Ostra/FlowUtil.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Ostra {

FlowDirectCounterImpl::FlowDirectCounterImpl(Korm::Ptr<Korm::Dir> dir) : dir_{std::move(dir)} {
  Korm::assertTrue(static_cast<bool>(dir_), "a counter reader has a directory to read");
}

P4Runtime::P4CounterData FlowDirectCounterImpl::getCounters(std::uint64_t entryId) const {
  P4Runtime::P4CounterData sum;
  const FlowName name{entryId, flowCounterSuffix};
  const Korm::HashedName flow{name.text()};
  for (const auto& [unitName, entity] : dir_->entities()) {
    const auto* const unit = dynamic_cast<const OpenFlowTable::HwStatus*>(entity.get());
    const auto* const stats = unit == nullptr ? nullptr : unit->flowStats(flow);
    if (stats != nullptr) {
      sum.packets += stats->packets();
      sum.bytes += stats->bytes();
    }
  }
  return sum;
}

}  // namespace Ostra
