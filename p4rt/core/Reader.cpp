#include "p4rt/core/Reader.h"

#include <utility>

#include "p4rt/core/Fault.h"
#include "sim/Service.h"

namespace P4rt {
namespace {

constexpr Code invalid = Code::invalidArgument_;

const TableInfo& tableOf(const Pipeline& pipeline, std::uint32_t id) {
  const TableInfo* const table = pipeline.table(id);
  if (table == nullptr) {
    refuse(Code::notFound_, "there is no table " + std::to_string(id));
  }
  return *table;
}

// An id of 0 means all action profiles.
void checkProfile(const Pipeline& pipeline, std::uint32_t id) {
  if (id != 0 && (!pipeline.profile() || pipeline.profile()->id != id)) {
    refuse(Code::notFound_, "there is no action profile " + std::to_string(id));
  }
}

// A filter for all tables may have no other field (P4Runtime 1.4.1, 9.1.6).
void checkNoFilter(const p4::v1::TableEntry& filter) {
  if (!filter.match().empty() || filter.has_action() || filter.priority() != 0 ||
      filter.controller_metadata() != 0 || !filter.metadata().empty() ||
      filter.is_default_action()) {
    refuse(invalid, "a filter without a table id must have no other field");
  }
}

// The id of the action that the filter asks for, 0 for any.
std::uint32_t actionFilter(const TableInfo& table, const p4::v1::TableEntry& filter) {
  if (!filter.has_action()) {
    return 0;
  }
  if (!filter.action().has_action() || table.profile != nullptr) {
    refuse(invalid, "a filter may name an action only of a table without an action profile");
  }
  const std::uint32_t id = filter.action().action().action_id();
  if (id != 0 && table.action(id) == nullptr) {
    refuse(invalid, "table '" + table.name + "' has no action " + std::to_string(id));
  }
  return id;
}

bool passes(const p4::v1::TableEntry& filter, std::uint32_t action, const Ostra::OstraKey& key,
            const FlowEntry& flow) {
  return (filter.priority() == 0 || filter.priority() == key.priority()) &&
         (action == 0 || flow.action.action->id == action) &&
         (filter.metadata().empty() || filter.metadata() == flow.metadata) &&
         (filter.controller_metadata() == 0 ||
          filter.controller_metadata() == flow.controllerMetadata);
}

void writeOneShot(const OneShot& shot, p4::v1::ActionProfileActionSet& set) {
  for (const OneShot::Action& action : shot.actions) {
    p4::v1::ActionProfileAction& written = *set.add_action_profile_actions();
    writeAction(action.action, *written.mutable_action());
    written.set_weight(action.weight);
  }
}

void writeTableAction(const FlowEntry& flow, p4::v1::TableAction& action) {
  switch (flow.kind) {
    case FlowEntry::Kind::direct_:
      writeAction(flow.action, *action.mutable_action());
      break;
    case FlowEntry::Kind::member_:
      action.set_action_profile_member_id(flow.member);
      break;
    case FlowEntry::Kind::group_:
      action.set_action_profile_group_id(flow.group);
      break;
    case FlowEntry::Kind::oneShot_:
      writeOneShot(*flow.oneShot, *action.mutable_action_profile_action_set());
      break;
  }
}

}  // namespace

void writeFlow(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow,
               p4::v1::TableEntry& entry) {
  writeKey(table, key, entry);
  writeTableAction(flow, *entry.mutable_action());
  entry.set_metadata(flow.metadata);
  entry.set_controller_metadata(flow.controllerMetadata);
}

void Reader::read(const p4::v1::Entity& filter) {
  switch (filter.entity_case()) {
    case p4::v1::Entity::kTableEntry:
      readEntries(filter.table_entry());
      break;
    case p4::v1::Entity::kDirectCounterEntry:
      readCounters(filter.direct_counter_entry());
      break;
    case p4::v1::Entity::kActionProfileMember:
      readMembers(filter.action_profile_member());
      break;
    case p4::v1::Entity::kActionProfileGroup:
      readGroups(filter.action_profile_group());
      break;
    case p4::v1::Entity::ENTITY_NOT_SET:
      refuse(invalid, "the filter names no entity");
    default:
      refuse(Code::unimplemented_, "this kind of entity is not offered");
  }
}

void Reader::flush() {
  if (!gathered_.entities().empty()) {
    emit_(std::exchange(gathered_, {}));
  }
}

p4::v1::Entity& Reader::next() {
  if (gathered_.entities_size() == chunk_) {
    flush();
  }
  return *gathered_.add_entities();
}

void Reader::readEntries(const p4::v1::TableEntry& filter) {
  if (filter.table_id() != 0) {
    readTable(tableOf(pipeline_, filter.table_id()), filter);
    return;
  }
  checkNoFilter(filter);
  for (const auto& [id, table] : pipeline_.tables()) {
    readTable(table, filter);
  }
}

void Reader::readTable(const TableInfo& table, const p4::v1::TableEntry& filter) {
  if (filter.is_default_action()) {
    readDefault(table);
    return;
  }
  const std::uint32_t action = actionFilter(table, filter);
  const bool withCounter = filter.has_counter_data();
  if (withCounter && !table.counted && filter.table_id() != 0) {
    refuse(invalid, "table '" + table.name + "' has no direct counter");
  }
  if (filter.match().empty()) {
    for (const auto& flow : store_.flows(table)) {
      if (passes(filter, action, flow.key, flow.value)) {
        emitEntry(table, flow.key, flow.value, withCounter && table.counted);
      }
    }
    return;
  }
  Ostra::OstraKey key = matchOf(table, filter);
  const auto emitPresent = [&] {
    const FlowEntry* const flow = store_.flow(table, key);
    if (flow != nullptr && passes(filter, action, key, *flow)) {
      emitEntry(table, key, *flow, withCounter);
    }
  };
  key.priorityIs(filter.priority());
  if (filter.priority() != 0 || !table.prioritized) {
    emitPresent();
    return;
  }
  for (const auto& flow : store_.flows(table)) {
    key.priorityIs(flow.key.priority());
    if (key == flow.key) {
      emitPresent();
    }
  }
}

void Reader::readDefault(const TableInfo& table) {
  if (table.defaultAction == nullptr) {
    return;
  }
  p4::v1::TableEntry& entry = *next().mutable_table_entry();
  entry.set_table_id(table.id);
  entry.set_is_default_action(true);
  entry.mutable_action()->mutable_action()->set_action_id(table.defaultAction->id);
}

void Reader::readCounters(const p4::v1::DirectCounterEntry& filter) {
  const p4::v1::TableEntry& entry = filter.table_entry();
  const auto readAll = [this](const TableInfo& table) {
    for (const auto& flow : store_.flows(table)) {
      emitCounter(table, flow.key, flow.value);
    }
  };
  if (entry.table_id() == 0) {
    checkNoFilter(entry);
    for (const auto& [id, table] : pipeline_.tables()) {
      if (table.counted) {
        readAll(table);
      }
    }
    return;
  }
  const TableInfo& table = tableOf(pipeline_, entry.table_id());
  if (!table.counted) {
    refuse(invalid, "table '" + table.name + "' has no direct counter");
  }
  if (entry.match().empty() && entry.priority() == 0) {
    readAll(table);
    return;
  }
  const Ostra::OstraKey key = keyOf(table, entry);
  const FlowEntry* const flow = store_.flow(table, key);
  if (flow == nullptr) {
    refuse(Code::notFound_, "there is no such entry in table '" + table.name + "'");
  }
  emitCounter(table, key, *flow);
}

void Reader::readMembers(const p4::v1::ActionProfileMember& filter) {
  checkProfile(pipeline_, filter.action_profile_id());
  if (filter.member_id() != 0) {
    if (const MemberEntry* const member = store_.member(filter.member_id())) {
      emitMember(filter.member_id(), *member);
    }
    return;
  }
  for (const auto& member : store_.members()) {
    emitMember(member.key, member.value);
  }
}

void Reader::readGroups(const p4::v1::ActionProfileGroup& filter) {
  checkProfile(pipeline_, filter.action_profile_id());
  if (filter.group_id() != 0) {
    if (const GroupEntry* const group = store_.group(filter.group_id())) {
      emitGroup(filter.group_id(), *group);
    }
    return;
  }
  for (const auto& group : store_.groups()) {
    emitGroup(group.key, group.value);
  }
}

void Reader::emitEntry(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow,
                       bool withCounter) {
  p4::v1::TableEntry& entry = *next().mutable_table_entry();
  writeFlow(table, key, flow, entry);
  if (withCounter) {
    writeCounter(flow, *entry.mutable_counter_data());
  }
}

void Reader::emitCounter(const TableInfo& table, const Ostra::OstraKey& key,
                         const FlowEntry& flow) {
  p4::v1::DirectCounterEntry& counter = *next().mutable_direct_counter_entry();
  writeKey(table, key, *counter.mutable_table_entry());
  writeCounter(flow, *counter.mutable_data());
}

void Reader::emitMember(Id id, const MemberEntry& member) {
  p4::v1::ActionProfileMember& written = *next().mutable_action_profile_member();
  written.set_action_profile_id(pipeline_.profile()->id);
  written.set_member_id(id);
  writeAction(member.action, *written.mutable_action());
}

void Reader::emitGroup(Id id, const GroupEntry& group) {
  p4::v1::ActionProfileGroup& written = *next().mutable_action_profile_group();
  written.set_action_profile_id(pipeline_.profile()->id);
  written.set_group_id(id);
  written.set_max_size(group.maxSize);
  for (const GroupEntry::Member& member : group.members) {
    auto& one = *written.add_members();
    one.set_member_id(member.id);
    one.set_weight(member.weight);
  }
}

void Reader::writeCounter(const FlowEntry& flow, p4::v1::CounterData& data) const {
  const P4Runtime::P4CounterData counted =
      service_.counter(flow.handle).value_or(P4Runtime::P4CounterData{});
  data.set_packet_count(static_cast<std::int64_t>(counted.packets));
  data.set_byte_count(static_cast<std::int64_t>(counted.bytes));
}

}  // namespace P4rt
