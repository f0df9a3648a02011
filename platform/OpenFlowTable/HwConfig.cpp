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
  FlowEntry& flow = flows_.make(name.text(), name.hash()).first;
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
  flows_.tell(name.text());
  return flow;
}

GroupEntry& FlowHwConfig::groupEntryIs(GroupId id) {
  const auto [group, made] = groups_.make(id, Groups::hash(id), *this, id);
  if (made) {
    groups_.tell(id);
  }
  return group;
}

}  // namespace OpenFlowTable
