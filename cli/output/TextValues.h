// The words for people of what the tables hold and the hardware says.
//
// Thread and process rule: free functions without state.
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
// The fields that are given, by their names in the P4 program, as matchText() has them.
[[nodiscard]] std::string keyText(const Ostra::OstraKey& key);
// What the entry asks for, as the controller gave it.
[[nodiscard]] std::string entryActionsText(const Ostra::OstraConfigEntry& entry);

// The number and its meaning: "1 programmed", "7 hardware full".
[[nodiscard]] std::string flowStatusText(OpenFlowTable::FlowStatus status);
[[nodiscard]] std::string groupStatusText(OpenFlowTable::GroupStatus status);
[[nodiscard]] std::string groupTypeText(OpenFlowTable::GroupType type);
// What an error code says, for a result that has no message of its own.
[[nodiscard]] std::string errorText(P4Runtime::ErrorCode code);

[[nodiscard]] std::string encapTypeText(std::uint8_t type);
// The colours whose packets a policer drops, as "green", "yellow" and "red".
[[nodiscard]] std::vector<std::string_view> droppedColors(
    const OpenFlowTable::PolicerConfig& policer);
// Seconds without zeros behind the last digit that counts, "-" for none.
[[nodiscard]] std::string secondsText(double seconds);

}  // namespace Cli
