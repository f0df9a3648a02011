#include "platform/OpenFlowTable/HwStatus.h"

namespace OpenFlowTable {

FlowStats& HwStatus::flowStatsIs(const Korm::HashedName& name, FlowStatus status) {
  const auto [entry, created] =
      flows_.tryEmplaceHashed(name.hash(), name.text(), Korm::Name{name.text()}, status);
  if (created && !flowNotifiees_.empty()) {
    const Korm::Name copy{name.text()};
    flowNotifiees_.notify(copy);
  }
  return entry.value;
}

bool HwStatus::flowStatsDel(const Korm::HashedName& name) {
  const Korm::Name copy{name.text()};  // it may be that of the statistics that go
  if (!flows_.erase(copy, name.hash())) {
    return false;
  }
  flowNotifiees_.notify(copy);
  return true;
}

GroupStats& HwStatus::groupStatsIs(GroupId id, GroupStatus status) {
  const auto [entry, created] = groups_.tryEmplace(id, id, status);
  if (created) {
    groupNotifiees_.notify(id);
  }
  return entry.value;
}

bool HwStatus::groupStatsDel(GroupId id) {
  if (!groups_.erase(id)) {
    return false;
  }
  groupNotifiees_.notify(id);
  return true;
}

}  // namespace OpenFlowTable
