// Translates between the messages of P4Runtime and the rows of the switch.
#pragma once

#include <string>

#include "Ostra/OstraTypes.h"
#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace P4rt {

// An action with its parameter values, as it is stored. `params` holds each value in its shortest
// form, preceded by a byte with its length, in the order of the P4Info. That is mostly short enough
// for the string to need no heap memory.
struct PackedAction {
  const ActionInfo* action = nullptr;
  std::string params{};

  friend bool operator==(const PackedAction&, const PackedAction&) = default;
};

// The key of the entry's row: match, priority, table type and priority group.
// Throws: Fault when the match or the priority is invalid.
[[nodiscard]] Ostra::OstraKey keyOf(const TableInfo& table, const p4::v1::TableEntry& entry);
// The same with priority 0. The priority of the entry is not checked.
// Throws: Fault when the match is invalid.
[[nodiscard]] Ostra::OstraKey matchOf(const TableInfo& table, const p4::v1::TableEntry& entry);
// Writes the table id, the match and the priority of an entry.
void writeKey(const TableInfo& table, const Ostra::OstraKey& key, p4::v1::TableEntry& entry);

// Throws: Fault when the parameters are not those of the action, or a value is too wide.
[[nodiscard]] PackedAction packAction(const ActionInfo& info, const p4::v1::Action& action);
void writeAction(const PackedAction& packed, p4::v1::Action& action);

// Writes the action into a row.
// Throws: Fault when the switch cannot hold a value.
void applyAction(const PackedAction& packed, Ostra::OstraConfigEntry& row);
void applyAction(const PackedAction& packed, P4RuntimeRouting::NexthopInfo& row);

}  // namespace P4rt
