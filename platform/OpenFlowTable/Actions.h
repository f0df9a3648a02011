// What a flow, or a bucket of a group, does.
//
// Trivially copyable without padding: the service stores actions in shared memory.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

#include "platform/Bridging/Bridging.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/Vrf/Vrf.h"

namespace OpenFlowTable {

enum class Action : std::uint8_t {
  trafficClass_,
  drop_,
  copyToCpu_,
  decTtl_,
  setDscp_,
  setEthSrc_,
  setEthDst_,
  ingrMirrorIntf_,
  egrMirrorIntf_,
  outputIntf_,
  vrf_,
  vlanId_,
  policer_,
  cpuTrafficClass_,
  group_,
  encap_,
  dstMac_,
  srcMac_,
  fixedBlock_,
};

// Which actions are present.
class ActionSet {
 public:
  [[nodiscard]] constexpr bool has(Action action) const noexcept {
    return (bits_ & bit(action)) != 0;
  }
  constexpr void hasIs(Action action, bool present) noexcept {
    bits_ = present ? bits_ | bit(action) : bits_ & ~bit(action);
  }
  friend constexpr bool operator==(const ActionSet&, const ActionSet&) noexcept = default;

 private:
  [[nodiscard]] static constexpr std::uint32_t bit(Action action) noexcept {
    return 1U << static_cast<unsigned>(action);
  }
  std::uint32_t bits_ = 0;
};

enum class PolicerColor : std::uint8_t { green_ = 0, yellow_ = 1, red_ = 2 };

struct PolicerConfig {
  std::uint64_t rate = 0;                     // kbit/s
  std::uint64_t burst = 0;                    // bytes
  std::array<std::uint8_t, 8> dropByColor{};  // by PolicerColor: 1 drops packets of that colour

  friend bool operator==(const PolicerConfig&, const PolicerConfig&) noexcept = default;
};

// How packets are encapsulated on their way out. The numbers are those of the routing feature's
// encapsulation types.
struct EncapInfo {
  Korm::Ip4Addr src;
  Korm::Ip4Addr dst;
  std::uint8_t type = 0;
  std::uint8_t ttl = 0;
  std::uint8_t dscp = 0;
  std::uint8_t reserved = 0;

  friend bool operator==(const EncapInfo&, const EncapInfo&) noexcept = default;
};

// The values of the actions and, in actionSet(), which of them are present. An `...Is` takes the value
// and whether the action is present with it. Values are stored as wide as the service may hand them
// over; the bounded types at the setters keep the limits.
class Actions {
 public:
  using FixedBlock = std::array<std::uint8_t, 8>;

  [[nodiscard]] const ActionSet& actionSet() const noexcept { return set_; }
  [[nodiscard]] bool has(Action action) const noexcept { return set_.has(action); }

  [[nodiscard]] std::uint8_t trafficClass() const noexcept { return trafficClass_; }
  [[nodiscard]] std::uint8_t cpuTrafficClass() const noexcept { return cpuTrafficClass_; }
  [[nodiscard]] std::uint8_t setDscp() const noexcept { return setDscp_; }
  [[nodiscard]] const Korm::EthAddr& setEthSrc() const noexcept { return setEthSrc_; }
  [[nodiscard]] const Korm::EthAddr& setEthDst() const noexcept { return setEthDst_; }
  [[nodiscard]] const Interface::IntfId& ingrMirrorIntf() const noexcept { return ingrMirrorIntf_; }
  [[nodiscard]] const Interface::IntfId& egrMirrorIntf() const noexcept { return egrMirrorIntf_; }
  [[nodiscard]] const Interface::IntfId& outputIntf() const noexcept { return outputIntf_; }
  [[nodiscard]] Vrf::VrfIdMap::VrfId vrf() const noexcept { return vrf_; }
  [[nodiscard]] std::uint16_t vlanId() const noexcept { return vlanId_; }
  [[nodiscard]] const PolicerConfig& policer() const noexcept { return policer_; }
  [[nodiscard]] GroupId group() const noexcept { return group_; }
  [[nodiscard]] const EncapInfo& encap() const noexcept { return encap_; }
  [[nodiscard]] const Korm::EthAddr& dstMac() const noexcept { return dstMac_; }
  [[nodiscard]] const Korm::EthAddr& srcMac() const noexcept { return srcMac_; }
  [[nodiscard]] const FixedBlock& fixedBlock() const noexcept { return fixedBlock_; }

  void trafficClassIs(TrafficClass value, bool present) noexcept {
    put(Action::trafficClass_, trafficClass_, value.value(), present);
  }
  void cpuTrafficClassIs(TrafficClass value, bool present) noexcept {
    put(Action::cpuTrafficClass_, cpuTrafficClass_, value.value(), present);
  }
  // The same as a controller gave it, for the service: the translation checks it.
  void uncheckedTrafficClassIs(std::uint8_t value, bool present) noexcept {
    put(Action::trafficClass_, trafficClass_, value, present);
  }
  void uncheckedCpuTrafficClassIs(std::uint8_t value, bool present) noexcept {
    put(Action::cpuTrafficClass_, cpuTrafficClass_, value, present);
  }
  void dropIs(bool present) noexcept { set_.hasIs(Action::drop_, present); }
  void copyToCpuIs(bool present) noexcept { set_.hasIs(Action::copyToCpu_, present); }
  void decTtlIs(bool present) noexcept { set_.hasIs(Action::decTtl_, present); }
  void setDscpIs(std::uint8_t value, bool present) noexcept {
    put(Action::setDscp_, setDscp_, value, present);
  }
  void setEthSrcIs(const Korm::EthAddr& value, bool present) noexcept {
    put(Action::setEthSrc_, setEthSrc_, value, present);
  }
  void setEthDstIs(const Korm::EthAddr& value, bool present) noexcept {
    put(Action::setEthDst_, setEthDst_, value, present);
  }
  void ingrMirrorIntfIs(const Interface::IntfId& value, bool present) noexcept {
    put(Action::ingrMirrorIntf_, ingrMirrorIntf_, value, present);
  }
  void egrMirrorIntfIs(const Interface::IntfId& value, bool present) noexcept {
    put(Action::egrMirrorIntf_, egrMirrorIntf_, value, present);
  }
  void outputIntfIs(const Interface::IntfId& value, bool present) noexcept {
    put(Action::outputIntf_, outputIntf_, value, present);
  }
  void vrfIs(Vrf::VrfIdMap::VrfId value, bool present) noexcept {
    put(Action::vrf_, vrf_, value, present);
  }
  void vlanIdIs(Bridging::VlanIdOrNone value, bool present) noexcept {
    put(Action::vlanId_, vlanId_, value.value(), present);
  }
  void policerIs(const PolicerConfig& value, bool present) noexcept {
    put(Action::policer_, policer_, value, present);
  }
  void groupIs(GroupId value, bool present) noexcept {
    put(Action::group_, group_, value, present);
  }
  void encapIs(const EncapInfo& value, bool present) noexcept {
    put(Action::encap_, encap_, value, present);
  }
  void dstMacIs(const Korm::EthAddr& value, bool present) noexcept {
    put(Action::dstMac_, dstMac_, value, present);
  }
  void srcMacIs(const Korm::EthAddr& value, bool present) noexcept {
    put(Action::srcMac_, srcMac_, value, present);
  }
  void fixedBlockIs(const FixedBlock& value, bool present) noexcept {
    put(Action::fixedBlock_, fixedBlock_, value, present);
  }

  friend bool operator==(const Actions&, const Actions&) noexcept = default;

 private:
  template <class T>
  void put(Action action, T& place, const T& value, bool present) noexcept {
    place = value;
    set_.hasIs(action, present);
  }

  GroupId group_ = 0;
  PolicerConfig policer_;
  FixedBlock fixedBlock_{};
  Interface::IntfId ingrMirrorIntf_;
  Interface::IntfId egrMirrorIntf_;
  Interface::IntfId outputIntf_;
  EncapInfo encap_;
  Vrf::VrfIdMap::VrfId vrf_ = 0;
  ActionSet set_;
  std::uint16_t vlanId_ = 0;
  std::uint8_t trafficClass_ = 0;
  std::uint8_t cpuTrafficClass_ = 0;
  Korm::EthAddr setEthSrc_;
  Korm::EthAddr setEthDst_;
  Korm::EthAddr dstMac_;
  Korm::EthAddr srcMac_;
  std::uint8_t setDscp_ = 0;
  std::array<std::uint8_t, 7> reserved_{};
};
static_assert(std::is_trivially_copyable_v<Actions>);
static_assert(std::has_unique_object_representations_v<Actions>);

}  // namespace OpenFlowTable
