#include "platform/OpenFlowTable/HwConfig.h"

namespace OpenFlowTable {

void GroupEntry::changeCountIs(double count) {
  changeCount_ = count;
  const GroupId id = id_;
  config_.groupEntryNotifiees().notify(id);
}

FlowEntry& FlowHwConfig::flowEntryIs(const Korm::HashedName& name, const Match& match,
                                     const Actions& actions, Priority priority,
                                     PriorityGroupType priorityGroupType, TableType tableType,
                                     std::uint64_t cookie, double idleTimeout, double hardTimeout,
                                     bool sendFlowRemoved, bool persistent) {
  FlowEntry& flow = flows_.tryEmplaceHashed(name.hash(), name.text()).first.value;
  flow.match_ = match;
  flow.actions_ = actions;
  flow.priority_ = priority;
  flow.priorityGroupType_ = priorityGroupType;
  flow.tableType_ = tableType;
  flow.cookie_ = cookie;
  flow.idleTimeout_ = idleTimeout;
  flow.hardTimeout_ = hardTimeout;
  flow.sendFlowRemoved_ = sendFlowRemoved;
  flow.persistent_ = persistent;
  if (!flowNotifiees_.empty()) {
    const Korm::Name copy{name.text()};  // it may be the key of a flow that a reactor deletes
    flowNotifiees_.notify(copy);
  }
  return flow;
}

bool FlowHwConfig::flowEntryDel(const Korm::HashedName& name) {
  const Korm::Name copy{name.text()};  // it may be the key of the flow that goes
  if (!flows_.erase(copy, name.hash())) {
    return false;
  }
  flowNotifiees_.notify(copy);
  return true;
}

GroupEntry& FlowHwConfig::groupEntryIs(GroupId id) {
  const auto [entry, created] = groups_.tryEmplace(id, *this, id);
  if (created) {
    groupNotifiees_.notify(id);
  }
  return entry.value;
}

bool FlowHwConfig::groupEntryDel(GroupId id) {
  if (!groups_.erase(id)) {
    return false;
  }
  groupNotifiees_.notify(id);
  return true;
}

}  // namespace OpenFlowTable
