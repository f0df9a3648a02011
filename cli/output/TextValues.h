// The texts, for people, of values in the tables and of hardware statuses.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Ostra/OstraTypes.h"
#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Match.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/P4Runtime/Types.h"

namespace Cli {

// "etherType=0x800 ipDst=10.1.0.0/16"; "any" for no field.
[[nodiscard]] std::string matchText(const OpenFlowTable::Match& match);
// "group=3 vrf=5"; "none" for no action.
[[nodiscard]] std::string actionsText(const OpenFlowTable::Actions& actions);
// The fields that are given, with their names in the P4 program, in the form of matchText().
[[nodiscard]] std::string keyText(const Ostra::OstraKey& key);
// The actions of the entry as the controller gave them.
[[nodiscard]] std::string entryActionsText(const Ostra::OstraConfigEntry& entry);

// The number and its meaning: "1 programmed", "7 hardware full".
[[nodiscard]] std::string flowStatusText(OpenFlowTable::FlowStatus status);
[[nodiscard]] std::string groupStatusText(OpenFlowTable::GroupStatus status);
[[nodiscard]] std::string groupTypeText(OpenFlowTable::GroupType type);
// The meaning of an error code, for a result without a message.
[[nodiscard]] std::string errorText(P4Runtime::ErrorCode code);

[[nodiscard]] std::string encapTypeText(std::uint8_t type);
// The colours whose packets a policer drops, as "green", "yellow" and "red".
[[nodiscard]] std::vector<std::string_view> droppedColors(
    const OpenFlowTable::PolicerConfig& policer);
// Seconds without trailing zeros, "-" for none.
[[nodiscard]] std::string secondsText(double seconds);

}  // namespace Cli
