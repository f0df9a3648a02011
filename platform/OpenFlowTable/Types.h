// Small types of the flow tables.
#pragma once

#include <cstdint>

#include "platform/Korm/BoundedValue.h"

namespace OpenFlowTable {

namespace detail {
struct PriorityLimits {
  static constexpr std::int32_t min = -1;
  static constexpr std::int32_t max = 65536;
  static constexpr const char* message = "Priority::value < -1 or > Priority::max not allowed";
};
struct TrafficClassLimits {
  static constexpr std::uint8_t min = 0;
  static constexpr std::uint8_t max = 16;
  static constexpr const char* message =
      "TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed";
};
}  // namespace detail

using Priority = Korm::BoundedValue<std::int32_t, detail::PriorityLimits>;

// A traffic class, or `invalid` for none.
class TrafficClass : public Korm::BoundedValue<std::uint8_t, detail::TrafficClassLimits> {
 public:
  static constexpr std::uint8_t invalid = 16;
  using BoundedValue::BoundedValue;
};

// The table of the pipeline that a flow belongs to.
enum class TableType : std::int32_t { l2_ = 0, l3_ = 1 };

// The group of priorities within its table.
using PriorityGroupType = std::uint32_t;

// Which layer-3 packets a flow matches.
enum class L3PacketType : std::uint8_t { ip_ = 0, nonIp_ = 1, ipv4_ = 2, ipv6_ = 3 };

// The writer of a group chooses its id.
using GroupId = std::uint64_t;

// OpenFlow's group types (OpenFlow 1.3.5, 7.3.4.2, enum ofp_group_type).
enum class GroupType : std::uint8_t { all_ = 0, select_ = 1, indirect_ = 2, fastFailover_ = 3 };

// What the hardware says of a flow. The hardware may also report numbers that are not in this list.
enum class FlowStatus : std::uint32_t {
  pending_ = 0,
  programmed_ = 1,
  programmedInSoftware_ = 2,
  programming_ = 3,
  waitingForGroup_ = 4,
  matchNotSupported_ = 5,
  actionNotSupported_ = 6,
  hardwareFull_ = 7,
  waitingForInterface_ = 8,
  hardwareError_ = 9,
  invalidInterface_ = 10,
  conflict_ = 11,
  actionSetNotSupported_ = 12,
  deleting_ = 13,
};

// What the hardware says of a group.
enum class GroupStatus : std::uint32_t {
  ready_ = 0,
  pending_ = 1,
  actionNotSupported_ = 2,
  hardwareFull_ = 3,
  hardwareError_ = 4,
};

}  // namespace OpenFlowTable
