// The numbers of the Corvex groups that stand for action-profile groups and members. Private to the
// library.
//
// Group g is Corvex group g, whose upper half is zero. Member m is Corvex group 2^32 + m. So a
// group and a member never have the same number.
#pragma once

#include "platform/OpenFlowTable/Types.h"
#include "platform/P4Runtime/Types.h"

namespace Ostra {

// Set in the Corvex group ids of members only.
inline constexpr OpenFlowTable::GroupId memberGroupBit = OpenFlowTable::GroupId{1} << 32U;

[[nodiscard]] constexpr OpenFlowTable::GroupId ecmpGroupId(
    P4Runtime::MemberOrGroupId groupId) noexcept {
  return groupId;
}
[[nodiscard]] constexpr OpenFlowTable::GroupId memberGroupId(
    P4Runtime::MemberOrGroupId memberId) noexcept {
  return memberGroupBit | memberId;
}

}  // namespace Ostra
