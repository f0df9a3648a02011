#include "platform/OpenFlowTable/HwStatus.h"

namespace OpenFlowTable {

FlowStats& HwStatus::flowStatsIs(const Korm::HashedName& name, FlowStatus status) {
  const auto [stats, made] = flows_.make(name.text(), name.hash(), Korm::Name{name.text()}, status);
  if (made) {
    flows_.tell(name.text());
  }
  return stats;
}

GroupStats& HwStatus::groupStatsIs(GroupId id, GroupStatus status) {
  const auto [stats, made] = groups_.make(id, Groups::hash(id), id, status);
  if (made) {
    groups_.tell(id);
  }
  return stats;
}

}  // namespace OpenFlowTable
