// The messages that the server sends on a StreamChannel.
#pragma once

#include <cstdint>
#include <string>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/RpcStatus.h"
#include "p4rt/core/Arbitration.h"

namespace P4rt {

// What the controller asks for.
[[nodiscard]] Claim claimOf(const p4::v1::MasterArbitrationUpdate& update);

// The MasterArbitrationUpdate for a controller of the role (P4Runtime 1.4.1, 5.4).
[[nodiscard]] p4::v1::StreamMessageResponse noticeMessage(const Notice& notice,
                                                          std::uint64_t device, const Role& role);

// The StreamError for a message that is no MasterArbitrationUpdate (16.6). `fromPrimary`: its
// sender is the primary of its role.
[[nodiscard]] p4::v1::StreamMessageResponse errorMessage(
    const p4::v1::StreamMessageRequest& refused, bool fromPrimary);

}  // namespace P4rt
