// What the server says on a StreamChannel.
//
// Thread and process rule: free functions without state.
#pragma once

#include <cstdint>
#include <string>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/RpcStatus.h"
#include "p4rt/core/Arbitration.h"

namespace P4rt {

// What a controller asks for.
[[nodiscard]] Claim claimOf(const p4::v1::MasterArbitrationUpdate& update);

// Where a controller of that role stands (P4Runtime 1.4.1, 5.4).
[[nodiscard]] p4::v1::StreamMessageResponse noticeMessage(const Notice& notice,
                                                          std::uint64_t device, const Role& role);

// Why a message that is no arbitration cannot be served, with the message (16.6). `fromPrimary`:
// its sender is the primary of its role.
[[nodiscard]] p4::v1::StreamMessageResponse errorMessage(
    const p4::v1::StreamMessageRequest& refused, bool fromPrimary);

}  // namespace P4rt
