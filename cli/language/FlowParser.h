// Flow entries of a controller in the command language.
//
// The match fields are those of OSTRA_MATCH_FIELDS and the plain actions those of OPENFLOW_ACTIONS:
// one that is added there is read here without more, unless its value is of a new type.
//
// Thread and process rule: free functions without state. Each takes the words behind "flow", reads
// them all, and throws CommandError for anything that is not in the grammar.
#pragma once

#include <cstdint>
#include <string>

#include "Ostra/OstraTypes.h"
#include "cli/language/Words.h"

namespace Cli {

// The index of the last flow table that commands can name: those behind it have no state machine.
inline constexpr std::uint8_t maxFlowTable = 14;

// A flow entry as a controller gives it; the handle and the entry id are the service's to fill in.
struct FlowWrite {
  std::uint8_t table = 0;
  Ostra::OstraConfigEntry entry;
};

// Key, "->" and actions, for an insert or a modify.
[[nodiscard]] FlowWrite parseFlow(Words& words);

// The key alone, for a delete.
[[nodiscard]] FlowWrite parseFlowKey(Words& words);

// What the words of a flow stand for, as lines that each begin with a line end: the fields, and the
// actions if they are asked for.
[[nodiscard]] std::string flowGrammar(bool withActions);

}  // namespace Cli
