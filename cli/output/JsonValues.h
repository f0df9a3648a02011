// The JSON forms of what the tables hold.
#pragma once

#include "cli/output/Json.h"
#include "platform/OpenFlowTable/HwConfig.h"

namespace Cli {

// A time: without a fraction where it is a whole number of seconds.
[[nodiscard]] Json secondsToJson(double seconds);

// The fields that are set, each as {"value", "mask"} or as its plain value.
[[nodiscard]] Json matchToJson(const OpenFlowTable::Match& match);

// The actions that are present.
[[nodiscard]] Json actionsToJson(const OpenFlowTable::Actions& actions);

[[nodiscard]] Json flowToJson(const Korm::Name& name, const OpenFlowTable::FlowEntry& flow);
[[nodiscard]] Json groupToJson(const OpenFlowTable::GroupEntry& group);

}  // namespace Cli
