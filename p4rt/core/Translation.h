// Between the messages of P4Runtime and the rows of the switch.
//
// Thread and process rule: functions without state.
#pragma once

#include <string>

#include "Ostra/OstraTypes.h"
#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace P4rt {

// An action with its parameters, as it is stored: each value in its shortest form behind a byte of
// length, in the order of the P4Info. Short enough, mostly, for no memory of its own.
struct PackedAction {
  const ActionInfo* action = nullptr;
  std::string params{};

  friend bool operator==(const PackedAction&, const PackedAction&) = default;
};

// The key of the row that an entry stands for: match, priority, and the table's place. Throws: a
// Fault.
[[nodiscard]] Ostra::OstraKey keyOf(const TableInfo& table, const p4::v1::TableEntry& entry);
// The same without the priority, which stays 0 and is not looked at.
[[nodiscard]] Ostra::OstraKey matchOf(const TableInfo& table, const p4::v1::TableEntry& entry);
// Writes table, match and priority of an entry.
void writeKey(const TableInfo& table, const Ostra::OstraKey& key, p4::v1::TableEntry& entry);

// Throws: a Fault for parameters that are not those of the action.
[[nodiscard]] PackedAction packAction(const ActionInfo& info, const p4::v1::Action& action);
void writeAction(const PackedAction& packed, p4::v1::Action& action);

// Fill in what the action does. Throws: a Fault for a value that the switch cannot hold.
void applyAction(const PackedAction& packed, Ostra::OstraConfigEntry& row);
void applyAction(const PackedAction& packed, P4RuntimeRouting::NexthopInfo& row);

}  // namespace P4rt
