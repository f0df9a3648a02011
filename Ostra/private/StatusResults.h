// The results that the statuses of the hardware stand for. Private to the library.
#pragma once

#include <optional>

#include "platform/OpenFlowTable/Types.h"
#include "platform/P4Runtime/Types.h"

namespace Ostra {

// The result of a flow's write by the status of the flow. Nothing while the hardware is still
// working on the flow.
[[nodiscard]] constexpr std::optional<P4Runtime::ErrorCode> flowResult(
    OpenFlowTable::FlowStatus status) noexcept {
  switch (status) {
    case OpenFlowTable::FlowStatus::pending_:
    case OpenFlowTable::FlowStatus::programming_:
    case OpenFlowTable::FlowStatus::waitingForGroup_:
    case OpenFlowTable::FlowStatus::waitingForInterface_:
    case OpenFlowTable::FlowStatus::deleting_:
      return std::nullopt;
    case OpenFlowTable::FlowStatus::programmed_:
    case OpenFlowTable::FlowStatus::programmedInSoftware_:
      return P4Runtime::ErrorCode::success_;
    case OpenFlowTable::FlowStatus::matchNotSupported_:
      return P4Runtime::ErrorCode::matchNotSupported_;
    case OpenFlowTable::FlowStatus::actionNotSupported_:
    case OpenFlowTable::FlowStatus::actionSetNotSupported_:
      return P4Runtime::ErrorCode::actionNotSupported_;
    case OpenFlowTable::FlowStatus::hardwareFull_:
      return P4Runtime::ErrorCode::hardwareResourceExhausted_;
    case OpenFlowTable::FlowStatus::hardwareError_:
    case OpenFlowTable::FlowStatus::invalidInterface_:
    case OpenFlowTable::FlowStatus::conflict_:
      break;
  }
  return P4Runtime::ErrorCode::hardwareError_;  // also for a status that has no name here
}

}  // namespace Ostra
