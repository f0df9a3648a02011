// The JSON forms of what the tables hold.
//
// Thread and process rule: free functions without state.
#pragma once

#include <iosfwd>

#include "platform/OpenFlowTable/HwConfig.h"
#include <nlohmann/json.hpp>

namespace Cli {

// Members stay in the order in which they are written.
using Json = nlohmann::ordered_json;

// Writes the object in one line. Bytes that are not UTF-8 are replaced, so that the line is JSON.
void printJson(std::ostream& out, const Json& object);

// A time: without a fraction where it is a whole number of seconds.
[[nodiscard]] Json secondsToJson(double seconds);

// The fields that are set, each as {"value", "mask"} or as its plain value.
[[nodiscard]] Json matchToJson(const OpenFlowTable::Match& match);

// The actions that are present.
[[nodiscard]] Json actionsToJson(const OpenFlowTable::Actions& actions);

[[nodiscard]] Json flowToJson(const Korm::Name& name, const OpenFlowTable::FlowEntry& flow);
[[nodiscard]] Json groupToJson(const OpenFlowTable::GroupEntry& group);

}  // namespace Cli
