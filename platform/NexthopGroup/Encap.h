// Encapsulation entries of the routing feature.
#pragma once

#include <array>
#include <cstdint>

#include "platform/Korm/Address.h"
#include "platform/KormVasta/TableEntity.h"

namespace NexthopGroup {

using EncapId = std::uint16_t;

enum class L2NhgEncapType : std::uint8_t { none_ = 0, encapIpInIp_ = 1, encapGre_ = 2 };

// One IPv4 encapsulation (RFC 2003 for IP in IP), as it stands in shared memory.
struct EncapEntry {
  using Key = EncapId;
  static constexpr std::string_view vastaName = "NexthopGroup::EncapEntry";

  [[nodiscard]] const Key& key() const noexcept { return encapId; }
  [[nodiscard]] L2NhgEncapType encapType() const noexcept { return type; }

  EncapId encapId = 0;
  L2NhgEncapType type = L2NhgEncapType::none_;
  std::uint8_t ttl = 0;
  std::uint8_t dscp = 0;
  std::array<std::uint8_t, 3> reserved{};
  Korm::Ip4Addr src;
  Korm::Ip4Addr dst;
};

class L2NexthopGroupEncapTable final : public KormVasta::TableEntity<EncapEntry> {
 public:
  static constexpr const char* typeName = "NexthopGroup::L2NexthopGroupEncapTable";
  using TableEntity::TableEntity;
};

}  // namespace NexthopGroup
