#include "Ostra/OstraCounter.h"

#include "Ostra/FlowUtil.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Ostra {
namespace {

// Behind the name of a flow in the statistics: whose flow it is.
constexpr const char* owner = "-p4rt";

}  // namespace

FlowDirectCounterImpl::FlowDirectCounterImpl(Korm::Ptr<Korm::Dir> dir) : dir_{std::move(dir)} {
  Korm::assertTrue(static_cast<bool>(dir_), "a counter reader has a directory to read");
}

P4Runtime::P4CounterData FlowDirectCounterImpl::getCounters(std::uint64_t entryId) const {
  using OpenFlowTable::HwStatus;
  P4Runtime::P4CounterData sum;
  const Korm::Name flow = buildFlowName(entryId) + owner;
  const auto hash = HwStatus::Flows::hash(flow);
  for (const auto& [name, entity] : dir_->entities()) {
    if (const auto* const status = dynamic_cast<const HwStatus*>(entity.get())) {
      if (const auto* const found = status->flowStats().find(flow, hash)) {
        sum.packets += found->value.packets();
        sum.bytes += found->value.bytes();
      }
    }
  }
  return sum;
}

}  // namespace Ostra
