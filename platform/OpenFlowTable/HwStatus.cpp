#include "platform/OpenFlowTable/HwStatus.h"

namespace OpenFlowTable {

FlowStats& HwStatus::flowStatsIs(const Korm::Name& name, FlowStatus status) {
  const auto [entry, created] = flows_.tryEmplace(name, name, status);
  if (created && !flowNotifiees_.empty()) {
    const Korm::Name copy = name;
    flowNotifiees_.notify(copy);
  }
  return entry.value;
}

bool HwStatus::flowStatsDel(const Korm::Name& name) {
  const Korm::Name copy = name;  // `name` may be that of the statistics that go
  if (!flows_.erase(copy)) {
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
