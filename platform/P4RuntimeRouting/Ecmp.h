// The service's tables of ECMP action-profile groups and members.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/Korm/Address.h"
#include "platform/Korm/BoundedValue.h"
#include "platform/Korm/PodArray.h"
#include "platform/KormVasta/TableEntity.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4Runtime/Types.h"

namespace P4RuntimeRouting {

// The most members that a group can have.
inline constexpr std::uint32_t maxMembers = 1024;

namespace detail {
struct MemberIndexLimits {
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = maxMembers - 1;
  static constexpr const char* message =
      "MemberIndex::value < MemberIndex::min or > MemberIndex::max not allowed";
};
}  // namespace detail

// A position in a group's member list.
using MemberIndex = Korm::BoundedValue<std::uint32_t, detail::MemberIndexLimits>;

// A group's row: its members' ids, in order, and as many weights.
struct EcmpMemberList {
  using Key = P4Runtime::MemberOrGroupId;
  static constexpr std::string_view vastaName = "P4RuntimeRouting::EcmpMemberList";

  [[nodiscard]] const Key& key() const noexcept { return groupId; }
  [[nodiscard]] std::size_t usedSize() const noexcept {
    return offsetof(EcmpMemberList, lists) + lists.usedSize();
  }

  // Throws: these two throw Korm::RangeException when a damaged row has more than maxMembers.
  [[nodiscard]] std::span<const P4Runtime::MemberOrGroupId> memberIds() const {
    return lists.first();
  }
  [[nodiscard]] std::span<const std::uint32_t> weights() const { return lists.second(); }
  void membersIs(std::span<const P4Runtime::MemberOrGroupId> ids,
                 std::span<const std::uint32_t> itsWeights = {}) {
    lists.set(ids, itsWeights);
  }

  P4Runtime::EntryHandle entryHandle;
  P4Runtime::MemberOrGroupId groupId = 0;
  std::uint32_t reserved = 0;
  Korm::PodArrayPair<std::uint32_t, maxMembers> lists;  // member ids, weights
};

// A link-layer address as three 16-bit words, the most significant first, as in a member's row.
using LinkLayerWords = std::array<std::uint16_t, 3>;

[[nodiscard]] constexpr Korm::EthAddr toEthAddr(const LinkLayerWords& words) noexcept {
  Korm::EthAddr address;
  for (std::size_t at = 0; at < words.size(); ++at) {
    address.octets[at * 2] = static_cast<std::uint8_t>(words[at] >> 8U);
    address.octets[at * 2 + 1] = static_cast<std::uint8_t>(words[at]);
  }
  return address;
}
[[nodiscard]] constexpr LinkLayerWords toLinkLayerWords(const Korm::EthAddr& address) noexcept {
  LinkLayerWords words{};
  for (std::size_t at = 0; at < words.size(); ++at) {
    words[at] =
        static_cast<std::uint16_t>(address.octets[at * 2] << 8U | address.octets[at * 2 + 1]);
  }
  return words;
}

// A member's row: one next hop.
struct NexthopInfo {
  using Key = P4Runtime::MemberOrGroupId;
  static constexpr std::string_view vastaName = "P4RuntimeRouting::NexthopInfo";

  [[nodiscard]] const Key& key() const noexcept { return memberId; }

  P4Runtime::EntryHandle entryHandle;
  P4Runtime::MemberOrGroupId memberId = 0;
  P4Runtime::P4PortId p4PortId = 0;
  LinkLayerWords dstMac{};  // all zero: not given
  LinkLayerWords srcMac{};  // all zero: not given
  NexthopGroup::EncapId encapId = 0;
  std::uint16_t reserved = 0;
};

class EcmpGroup final : public KormVasta::TableEntity<EcmpMemberList> {
 public:
  using TableEntity::TableEntity;
};

class EcmpMember final : public KormVasta::TableEntity<NexthopInfo> {
 public:
  using TableEntity::TableEntity;
};

}  // namespace P4RuntimeRouting
