#include "Ostra/OstraCounter.h"

#include <array>
#include <span>
#include <string_view>

#include "Ostra/FlowUtil.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Ostra {
namespace {

// Behind the name of a flow in the statistics: whose flow it is.
constexpr std::string_view owner = "-p4rt";

}  // namespace

FlowDirectCounterImpl::FlowDirectCounterImpl(Korm::Ptr<Korm::Dir> dir) : dir_{std::move(dir)} {
  Korm::assertTrue(static_cast<bool>(dir_), "a counter reader has a directory to read");
}

// Some units at a time, pass by pass, so that memory is asked for what all of them need at once.
P4Runtime::P4CounterData FlowDirectCounterImpl::getCounters(std::uint64_t entryId) const {
  P4Runtime::P4CounterData sum;
  const FlowName name{entryId, owner};
  const Korm::HashedName flow{name.text()};
  const auto& entities = dir_->entities();
  for (auto entity = entities.begin(); entity != entities.end();) {
    std::array<const OpenFlowTable::HwStatus*, 16> units;
    std::size_t count = 0;
    for (; entity != entities.end() && count < units.size(); ++entity) {
      units[count] = dynamic_cast<const OpenFlowTable::HwStatus*>(entity->second.get());
      if (units[count] != nullptr) {
        units[count++]->flowStatsExpected(flow.hash());
      }
    }
    const auto some = std::span{units}.first(count);
    for (const auto* const unit : some) {
      unit->flowStatsExpectedSoon(flow.hash());
    }
    for (const auto* const unit : some) {
      if (const auto* const stats = unit->flowStats(flow)) {
        sum.packets += stats->packets();
        sum.bytes += stats->bytes();
      }
    }
  }
  return sum;
}

}  // namespace Ostra
