// The numbers of the Corvex groups that stand for action-profile groups and members.
//
// Group g is Corvex group g, whose upper half is zero. Member m is Corvex group 2^32 + m. So a
// group and a member never have the same number.
#pragma once

#include "platform/OpenFlowTable/Types.h"
#include "platform/P4Runtime/Types.h"

namespace Ostra {

[[nodiscard]] constexpr OpenFlowTable::GroupId ecmpGroupId(
    P4Runtime::MemberOrGroupId groupId) noexcept {
  return groupId;
}
[[nodiscard]] constexpr OpenFlowTable::GroupId memberGroupId(
    P4Runtime::MemberOrGroupId memberId) noexcept {
  return OpenFlowTable::GroupId{1} << 32U | memberId;
}

}  // namespace Ostra
