// Flow entries of a controller in the command language.
//
// The match fields come from OSTRA_MATCH_FIELDS and the plain actions from OPENFLOW_ACTIONS. A line
// that is added there needs no change here, unless its value has a new type.
//
// Each function reads all words after "flow".
// Throws: CommandError for anything that is not in the grammar.
#pragma once

#include <cstdint>
#include <string>

#include "Ostra/OstraTypes.h"
#include "cli/language/Words.h"

namespace Cli {

// A flow entry as a controller gives it. The service fills in the handle and the entry id.
struct FlowWrite {
  std::uint8_t table = 0;
  Ostra::OstraConfigEntry entry;
};

// Key, "->" and actions, for an insert or a modify.
[[nodiscard]] FlowWrite parseFlow(Words& words);

// The key alone, for a delete.
[[nodiscard]] FlowWrite parseFlowKey(Words& words);

// The explanation of the words of a flow: the fields and, with `withActions`, the actions. Each
// line begins with a line feed.
[[nodiscard]] std::string flowGrammar(bool withActions);

}  // namespace Cli
