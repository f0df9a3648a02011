#include "p4rt/core/Planner.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "p4rt/core/Fault.h"

namespace P4rt {
namespace {

using p4::v1::Update;
using Sim::Op;

constexpr Code invalid = Code::invalidArgument_;

std::string named(const TableInfo& table) { return "table '" + table.name + "'"; }

const TableInfo& tableOf(const Pipeline& pipeline, std::uint32_t id) {
  if (id == 0) {
    refuse(invalid, "the entry names no table");
  }
  const TableInfo* const table = pipeline.table(id);
  if (table == nullptr) {
    refuse(Code::notFound_, "there is no table " + std::to_string(id));
  }
  return *table;
}

const ActionInfo& entryAction(const TableInfo& table, std::uint32_t id) {
  const ActionRef* const ref = table.action(id);
  if (ref == nullptr) {
    refuse(invalid, named(table) + " has no action " + std::to_string(id));
  }
  if (!ref->inEntries) {
    refuse(Code::permissionDenied_,
           "action '" + ref->action->name + "' is the default action's only");
  }
  return *ref->action;
}

// Refuses the features of a table entry that the switch does not have.
void checkOffered(const TableInfo& table, const p4::v1::TableEntry& entry, bool fresh) {
  if (entry.is_const()) {
    refuse(invalid, "is_const is for entries of the P4 program");
  }
  if (entry.has_meter_config() || entry.has_meter_counter_data()) {
    refuse(invalid, named(table) + " has no direct meter");
  }
  if (entry.idle_timeout_ns() != 0 || entry.has_time_since_last_hit()) {
    refuse(invalid, named(table) + " has no idle timeouts");
  }
  if (!entry.has_counter_data()) {
    return;
  }
  if (!table.counted) {
    refuse(invalid, named(table) + " has no direct counter");
  }
  if (!fresh || entry.counter_data().packet_count() != 0 ||
      entry.counter_data().byte_count() != 0) {
    refuse(Code::unimplemented_, "counters are read, not written");
  }
}

void planDefault(const TableInfo& table, Update::Type type, const p4::v1::TableEntry& entry) {
  if (type != Update::MODIFY) {
    refuse(invalid, "a default entry is modified, not inserted or deleted");
  }
  if (!entry.match().empty() || entry.priority() != 0) {
    refuse(invalid, "a default entry has neither match nor priority");
  }
  refuse(table.constantDefault ? Code::permissionDenied_ : Code::unimplemented_,
         "the default action of " + named(table) + " cannot be changed");
}

void describe(const p4::v1::TableEntry& entry, FlowEntry& flow) {
  flow.metadata = entry.metadata();
  flow.controllerMetadata = entry.controller_metadata();
}

template <class Message>
void refuseWatch(const Message& message) {
  if (message.watch_kind_case() != Message::WATCH_KIND_NOT_SET) {
    refuse(Code::unimplemented_, "watch ports are not offered");
  }
}

// The size of groups in the unit of the action profile: members or sum of weights.
std::int64_t unitsOf(const ProfileInfo& profile, std::int64_t members, std::int64_t weights) {
  return profile.countsMembers ? members : weights;
}

void checkWeight(const ProfileInfo& profile, std::int32_t weight) {
  if (weight <= 0) {
    refuse(invalid, "a weight is at least 1");
  }
  if (profile.maxWeight > 0 && weight > profile.maxWeight) {
    refuse(invalid, "a weight is at most " + std::to_string(profile.maxWeight));
  }
}

// `total` is the size of all groups, without the group that is replaced.
void checkSize(const ProfileInfo& profile, std::int64_t total, std::int64_t members,
               std::int64_t weights, std::int64_t most) {
  const std::int64_t units = unitsOf(profile, members, weights);
  if ((most > 0 && units > most) || weights > std::int64_t{P4RuntimeRouting::maxMembers}) {
    refuse(Code::resourceExhausted_, "the group is larger than its largest size");
  }
  if (profile.size > 0 && total + units > profile.size) {
    refuse(Code::resourceExhausted_,
           "action profile '" + profile.name + "' has room for " + std::to_string(profile.size));
  }
}

[[noreturn]] void refuseStyle(bool oneShotsStand) {
  refuse(invalid,
         oneShotsStand
             ? "the action profile is in use by one shots, so it takes no members or groups"
             : "the action profile is in use by members or groups, so it takes no one shots");
}

void checkIds(const std::optional<ProfileInfo>& profile, std::uint32_t profileId, Id id) {
  if (profileId == 0 || id == 0) {
    refuse(invalid, "an action profile id, a member id or a group id is 0, which is not valid");
  }
  if (!profile || profile->id != profileId) {
    refuse(Code::notFound_, "there is no action profile " + std::to_string(profileId));
  }
}

[[noreturn]] void refuseExisting(std::string_view what, Id id) {
  refuse(Code::alreadyExists_, std::string{what} + " " + std::to_string(id) + " exists already");
}
[[noreturn]] void refuseMissing(std::string_view what, Id id) {
  refuse(Code::notFound_, "there is no " + std::string{what} + " " + std::to_string(id));
}
[[noreturn]] void refuseUsed(std::string_view what, Id id) {
  refuse(Code::failedPrecondition_, std::string{what} + " " + std::to_string(id) + " is in use");
}

}  // namespace

Change Planner::plan(const Update& update) {
  if (update.type() == Update::UNSPECIFIED || !Update::Type_IsValid(update.type())) {
    refuse(invalid, "the update is neither INSERT nor MODIFY nor DELETE");
  }
  const p4::v1::Entity& entity = update.entity();
  switch (entity.entity_case()) {
    case p4::v1::Entity::kTableEntry:
      return planFlow(update.type(), entity.table_entry());
    case p4::v1::Entity::kActionProfileMember:
      return planMember(update.type(), entity.action_profile_member());
    case p4::v1::Entity::kActionProfileGroup:
      return planGroup(update.type(), entity.action_profile_group());
    case p4::v1::Entity::kDirectCounterEntry:
      planCounter(update.type(), entity.direct_counter_entry());
    case p4::v1::Entity::ENTITY_NOT_SET:
      refuse(invalid, "the update has no entity");
    default:
      refuse(Code::unimplemented_, "this kind of entity is not offered");
  }
}

Change Planner::planFlow(Type type, const p4::v1::TableEntry& entry) {
  const TableInfo& table = tableOf(pipeline_, entry.table_id());
  if (type != Update::DELETE) {
    checkOffered(table, entry, type == Update::INSERT);
  }
  if (entry.is_default_action()) {
    planDefault(table, type, entry);
  }
  if (table.fields.empty()) {
    refuse(invalid, named(table) + " has no key, so it has no entry but its default one");
  }
  switch (type) {
    case Update::INSERT:
      return insertFlow(table, entry);
    case Update::MODIFY:
      return modifyFlow(table, entry);
    default:
      break;
  }
  const Ostra::OstraKey key = keyOf(table, entry);
  if (store_.flow(table, key) == nullptr) {
    refuse(Code::notFound_, "there is no such entry in " + named(table));
  }
  return {Op::delete_, FlowChange{&table, key, store_.takeFlow(table, key)}};
}

Change Planner::insertFlow(const TableInfo& table, const p4::v1::TableEntry& entry) {
  const Ostra::OstraKey key = keyOf(table, entry);
  if (store_.flow(table, key) != nullptr) {
    refuse(Code::alreadyExists_, "the entry exists already in " + named(table));
  }
  if (table.size > 0 && store_.flows(table).size() >= table.size) {
    refuse(Code::resourceExhausted_,
           named(table) + " has room for " + std::to_string(table.size) + " entries");
  }
  FlowEntry flow = actionOf(table, entry.action(), nullptr);
  describe(entry, flow);
  store_.put(table, key, std::move(flow));
  return {Op::insert_, FlowChange{&table, key}};
}

Change Planner::modifyFlow(const TableInfo& table, const p4::v1::TableEntry& entry) {
  const Ostra::OstraKey key = keyOf(table, entry);
  FlowEntry* const present = store_.flow(table, key);
  if (present == nullptr) {
    refuse(Code::notFound_, "there is no such entry in " + named(table));
  }
  const bool keeps = entry.action().type_case() == p4::v1::TableAction::TYPE_NOT_SET;
  FlowEntry flow;
  if (keeps) {
    flow.kind = present->kind;
    flow.action = present->action;
    flow.member = present->member;
    flow.group = present->group;
    flow.oneShot = present->oneShot ? std::make_unique<OneShot>(*present->oneShot) : nullptr;
  } else {
    flow = actionOf(table, entry.action(), present);
  }
  describe(entry, flow);
  flow.kept = present->kept;
  Change change{Op::modify_, FlowChange{&table, key, store_.takeFlow(table, key), keeps}};
  store_.put(table, key, std::move(flow));
  return change;
}

FlowEntry Planner::actionOf(const TableInfo& table, const p4::v1::TableAction& action,
                            const FlowEntry* former) {
  using p4::v1::TableAction;
  if (action.type_case() == TableAction::TYPE_NOT_SET) {
    refuse(invalid, "the entry has no action");
  }
  if (action.has_action()) {
    return directAction(table, action.action());
  }
  if (table.profile == nullptr) {
    refuse(invalid, named(table) + " has no action profile, so an entry has an action of its own");
  }
  if (action.type_case() != TableAction::kActionProfileMemberId && !table.profile->selector) {
    refuse(invalid, "action profile '" + table.profile->name + "' has no groups");
  }
  if (action.has_action_profile_action_set()) {
    return oneShotOf(table, action.action_profile_action_set(), former);
  }
  if (store_.oneShots() > 0) {
    refuseStyle(true);
  }
  FlowEntry flow;
  if (action.type_case() == TableAction::kActionProfileMemberId) {
    flow.kind = FlowEntry::Kind::member_;
    flow.member = action.action_profile_member_id();
    requireMember(flow.member);
  } else {
    flow.kind = FlowEntry::Kind::group_;
    flow.group = action.action_profile_group_id();
    requireGroup(flow.group);
  }
  return flow;
}

void Planner::requireMember(Id id) {
  if (id == 0) {
    refuse(invalid, "member id 0 is not valid");
  }
  if (store_.member(id) == nullptr) {
    refuseMissing("member", id);
  }
}

void Planner::requireGroup(Id id) {
  if (id == 0) {
    refuse(invalid, "group id 0 is not valid");
  }
  if (store_.group(id) == nullptr) {
    refuseMissing("group", id);
  }
}

FlowEntry Planner::directAction(const TableInfo& table, const p4::v1::Action& action) {
  if (table.profile != nullptr) {
    refuse(invalid, named(table) + " takes members, groups and one shots of its action profile");
  }
  FlowEntry flow;
  flow.action = packAction(entryAction(table, action.action_id()), action);
  Ostra::OstraConfigEntry row;
  applyAction(flow.action, row);
  if (row.memberGiven) {
    flow.member = row.memberId;
    requireMember(flow.member);
  }
  if (row.groupGiven) {
    flow.group = row.groupId;
    requireGroup(flow.group);
  }
  return flow;
}

FlowEntry Planner::oneShotOf(const TableInfo& table, const p4::v1::ActionProfileActionSet& set,
                             const FlowEntry* former) {
  const ProfileInfo& profile = *table.profile;
  if (!store_.members().empty() || !store_.groups().empty()) {
    refuseStyle(false);
  }
  if (set.action_profile_actions().empty()) {
    refuse(invalid, "the action set is empty");
  }
  auto shot = std::make_unique<OneShot>();
  std::int64_t weights = 0;
  for (const p4::v1::ActionProfileAction& given : set.action_profile_actions()) {
    const ActionInfo& info = entryAction(table, given.action().action_id());
    shot->actions.push_back({packAction(info, given.action()), given.weight(), 0});
    refuseWatch(given);
    checkWeight(profile, given.weight());
    weights += given.weight();
  }
  const auto members = static_cast<std::int64_t>(shot->actions.size());
  std::int64_t total = unitsOf(profile, store_.groupMembers(), store_.groupWeights());
  if (former != nullptr && former->oneShot) {
    for (const OneShot::Action& action : former->oneShot->actions) {
      total -= unitsOf(profile, 1, action.weight);
    }
  }
  checkSize(profile, total, members, weights, profile.maxGroupSize);
  shot->group = store_.takeHidden();
  for (OneShot::Action& action : shot->actions) {
    action.member = store_.takeHidden();
  }
  FlowEntry flow;
  flow.kind = FlowEntry::Kind::oneShot_;
  flow.oneShot = std::move(shot);
  return flow;
}

PackedAction Planner::memberAction(const p4::v1::Action& action) const {
  for (const auto& [id, table] : pipeline_.tables()) {
    if (table.profile != nullptr && table.action(action.action_id()) != nullptr) {
      return packAction(entryAction(table, action.action_id()), action);
    }
  }
  refuse(invalid, "action profile '" + pipeline_.profile()->name + "' has no action " +
                      std::to_string(action.action_id()));
}

Change Planner::planMember(Type type, const p4::v1::ActionProfileMember& member) {
  const Id id = member.member_id();
  checkIds(pipeline_.profile(), member.action_profile_id(), id);
  const ProfileInfo& profile = *pipeline_.profile();
  MemberEntry* const present = store_.member(id);
  if (type == Update::INSERT && present != nullptr) {
    refuseExisting("member", id);
  }
  if (type != Update::INSERT && present == nullptr) {
    refuseMissing("member", id);
  }
  if (type == Update::DELETE) {
    if (present->users > 0) {
      refuseUsed("member", id);
    }
    return {Op::delete_, MemberChange{id, store_.takeMember(id)}};
  }
  MemberEntry entry{.handle = {}, .action = memberAction(member.action())};
  if (type == Update::INSERT) {
    if (store_.oneShots() > 0) {
      refuseStyle(true);
    }
    if (!profile.selector && profile.size > 0 &&
        static_cast<std::int64_t>(store_.members().size()) >= profile.size) {
      refuse(Code::resourceExhausted_, "action profile '" + profile.name + "' has room for " +
                                           std::to_string(profile.size) + " members");
    }
    store_.put(id, std::move(entry));
    return {Op::insert_, MemberChange{id}};
  }
  entry.users = present->users;
  Change change{Op::modify_, MemberChange{id, store_.takeMember(id)}};
  store_.put(id, std::move(entry));
  return change;
}

Change Planner::planGroup(Type type, const p4::v1::ActionProfileGroup& group) {
  const Id id = group.group_id();
  checkIds(pipeline_.profile(), group.action_profile_id(), id);
  if (!pipeline_.profile()->selector) {
    refuse(invalid, "action profile '" + pipeline_.profile()->name + "' has no groups");
  }
  GroupEntry* const present = store_.group(id);
  if (type == Update::INSERT && present != nullptr) {
    refuseExisting("group", id);
  }
  if (type != Update::INSERT && present == nullptr) {
    refuseMissing("group", id);
  }
  if (type == Update::DELETE) {
    if (present->users > 0) {
      refuseUsed("group", id);
    }
    return {Op::delete_, GroupChange{id, store_.takeGroup(id)}};
  }
  GroupEntry entry = groupOf(group, present);
  if (type == Update::INSERT) {
    if (store_.oneShots() > 0) {
      refuseStyle(true);
    }
    store_.put(id, std::move(entry));
    return {Op::insert_, GroupChange{id}};
  }
  if (entry.members.empty() && !present->members.empty()) {
    // The switch would go on forwarding by the members that were.
    refuse(Code::unimplemented_, "a group that has members keeps at least one; it can be deleted");
  }
  entry.users = present->users;
  Change change{Op::modify_, GroupChange{id, store_.takeGroup(id)}};
  store_.put(id, std::move(entry));
  return change;
}

GroupEntry Planner::groupOf(const p4::v1::ActionProfileGroup& group, const GroupEntry* former) {
  const ProfileInfo& profile = *pipeline_.profile();
  const std::int32_t maxSize = group.max_size();
  if (maxSize < 0 ||
      (profile.maxGroupSize > 0 && (maxSize == 0 || maxSize > profile.maxGroupSize))) {
    refuse(invalid, "max_size " + std::to_string(maxSize) + " is outside " +
                        (profile.maxGroupSize > 0 ? "1 to " + std::to_string(profile.maxGroupSize)
                                                  : "the numbers from 0 on"));
  }
  if (former != nullptr && former->maxSize != maxSize) {
    refuse(invalid, "max_size is set when a group is inserted, and not changed");
  }
  GroupEntry entry{.handle = {}, .members = {}, .maxSize = maxSize};
  std::int64_t weights = 0;
  std::vector<Id> ids;
  for (const auto& member : group.members()) {
    refuseWatch(member);
    checkWeight(profile, member.weight());
    requireMember(member.member_id());
    ids.push_back(member.member_id());
    entry.members.push_back({member.member_id(), member.weight()});
    weights += member.weight();
  }
  std::sort(ids.begin(), ids.end());
  if (std::adjacent_find(ids.begin(), ids.end()) != ids.end()) {
    refuse(invalid, "a member comes twice");
  }
  std::int64_t total = unitsOf(profile, store_.groupMembers(), store_.groupWeights());
  if (former != nullptr) {
    for (const GroupEntry::Member& member : former->members) {
      total -= unitsOf(profile, 1, member.weight);
    }
  }
  checkSize(profile, total, static_cast<std::int64_t>(ids.size()), weights, maxSize);
  return entry;
}

void Planner::planCounter(Type type, const p4::v1::DirectCounterEntry& counter) {
  if (type != Update::MODIFY) {
    refuse(invalid, "a direct counter is modified, not inserted or deleted");
  }
  const TableInfo& table = tableOf(pipeline_, counter.table_entry().table_id());
  if (!table.counted) {
    refuse(invalid, named(table) + " has no direct counter");
  }
  if (store_.flow(table, keyOf(table, counter.table_entry())) == nullptr) {
    refuse(Code::notFound_, "there is no such entry in " + named(table));
  }
  refuse(Code::unimplemented_, "counters are read, not written");
}

}  // namespace P4rt
