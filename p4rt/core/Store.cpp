#include "p4rt/core/Store.h"

#include <map>
#include <utility>

#include "platform/Korm/Exceptions.h"

namespace P4rt {
namespace {

template <class Map, class Key>
auto* find(Map& map, const Key& key) {
  auto* const found = map.find(key);
  return found == nullptr ? nullptr : &found->value;
}

template <class Map, class Key>
auto take(Map& map, const Key& key) {
  auto* const found = map.find(key);
  Korm::assertTrue(found != nullptr, "what is taken is there");
  auto taken = std::move(found->value);
  map.erase(key);
  return taken;
}

template <class Map, class Key, class Value>
Value& place(Map& map, const Key& key, Value&& value) {
  const auto [entry, fresh] = map.tryEmplace(key, std::move(value));
  Korm::assertTrue(fresh, "what is put is not there yet");
  return entry.value;
}

void add(std::uint32_t& users, int by) { users += static_cast<std::uint32_t>(by); }

}  // namespace

FlowEntry* Store::flow(const TableInfo& table, const Ostra::OstraKey& key) {
  return find(flows_[table.index], key);
}
MemberEntry* Store::member(Id id) { return find(members_, id); }
GroupEntry* Store::group(Id id) { return find(groups_, id); }

FlowEntry& Store::put(const TableInfo& table, const Ostra::OstraKey& key, FlowEntry&& entry) {
  count(entry, 1);
  return place(flows_[table.index], key, std::move(entry));
}

MemberEntry& Store::put(Id id, MemberEntry&& entry) {
  return place(members_, id, std::move(entry));
}

GroupEntry& Store::put(Id id, GroupEntry&& entry) {
  count(entry, 1);
  return place(groups_, id, std::move(entry));
}

FlowEntry Store::takeFlow(const TableInfo& table, const Ostra::OstraKey& key) {
  FlowEntry taken = take(flows_[table.index], key);
  count(taken, -1);
  return taken;
}

MemberEntry Store::takeMember(Id id) { return take(members_, id); }

GroupEntry Store::takeGroup(Id id) {
  GroupEntry taken = take(groups_, id);
  count(taken, -1);
  return taken;
}

void Store::count(const FlowEntry& entry, int by) {
  if (entry.member != 0) {
    add(member(entry.member)->users, by);
  }
  if (entry.group != 0) {
    add(group(entry.group)->users, by);
  }
  if (entry.kind == FlowEntry::Kind::oneShot_) {
    oneShots_ += static_cast<std::size_t>(by);
    for (const OneShot::Action& action : entry.oneShot->actions) {
      groupMembers_ += by;
      groupWeights_ += by * action.weight;
    }
  }
}

void Store::count(const GroupEntry& entry, int by) {
  for (const GroupEntry::Member& one : entry.members) {
    add(member(one.id)->users, by);
    groupMembers_ += by;
    groupWeights_ += by * one.weight;
  }
}

Id Store::takeHidden() {
  if (freeHidden_.empty()) {
    return nextHidden_++;
  }
  const Id id = freeHidden_.back();
  freeHidden_.pop_back();
  return id;
}

void Store::verify() const {
  std::map<Id, std::uint32_t> memberUsers;
  std::map<Id, std::uint32_t> groupUsers;
  for (const auto& group : groups_) {
    for (const GroupEntry::Member& member : group.value.members) {
      ++memberUsers[member.id];
    }
  }
  std::size_t oneShotsSeen = 0;
  for (const Flows& flows : flows_) {
    for (const auto& flow : flows) {
      memberUsers[flow.value.member] += flow.value.member != 0 ? 1U : 0U;
      groupUsers[flow.value.group] += flow.value.group != 0 ? 1U : 0U;
      oneShotsSeen += flow.value.oneShot ? 1U : 0U;
    }
  }
  for (const auto& member : members_) {
    Korm::assertTrue(member.value.users == memberUsers[member.key], "users of members are counted");
  }
  for (const auto& group : groups_) {
    Korm::assertTrue(group.value.users == groupUsers[group.key], "users of groups are counted");
  }
  Korm::assertTrue(oneShotsSeen == oneShots_, "one shots are counted");
}

}  // namespace P4rt
