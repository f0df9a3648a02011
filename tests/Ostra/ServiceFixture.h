// What a service gives to the library, and ears and eyes for what the library does with it.
#pragma once

#include "Ostra/OstraStatus.h"
#include "Ostra/OstraTypes.h"
#include "Ostra/StatePaths.h"
#include "platform/CorvexConfig/Config.h"
#include "platform/Korm/Clock.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/HandleMgr.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"
#include "tests/Heard.h"

namespace OstraTest {

using namespace TestSupport;
using Ostra::FlowTableIndex;
using Ostra::OstraKey;

// A key of its own for each number, without anything to check.
[[nodiscard]] inline Ostra::OstraKey plainKey(std::uint16_t number) {
  Ostra::OstraKey key;
  key.priorityIs(10);
  key.l4DstPortIs(number, 0xFFFF);
  return key;
}

using Id = P4Runtime::MemberOrGroupId;
using Ids = std::vector<Id>;
using OpenFlowTable::Action;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::GroupType;

inline constexpr GroupId memberBase = 4294967296;

inline P4Runtime::EntryHandle memberHandle(Id id) { return 1000U + id; }
inline P4Runtime::EntryHandle groupHandle(Id id) { return 2000U + id; }

struct Member {
  Id id = 0;
  P4Runtime::P4PortId port = 1;
  NexthopGroup::EncapId encap = 9;
  Korm::EthAddr dstMac{};
  Korm::EthAddr srcMac{};
};

struct Encap {
  NexthopGroup::EncapId id = 9;
  std::uint8_t lastOctet = 1;  // of the tunnel's source 10.0.0.x and destination 10.0.1.x
  NexthopGroup::L2NhgEncapType type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
};

class ServiceFixture : public testing::Test {
 protected:
  ServiceFixture() {
    now = 100;
    Korm::clockIs([] { return now; });
    for (const P4Runtime::P4PortId port : {1U, 2U, 3U}) {
      ports->portIs(port, Interface::IntfId{"Ethernet" + std::to_string(port)});
    }
  }
  ~ServiceFixture() override { Korm::clockIs(nullptr); }

  Korm::Ptr<OpenFlowTable::HwStatus> publishHwStatus() const {
    auto status = Korm::makePtr<OpenFlowTable::HwStatus>(Ostra::p4rtName);
    cxHwStatusDir->entityIs(Ostra::p4rtName, status);
    return status;
  }

  // What the controller and the routing feature write.
  void writeMember(const Member& member) const {
    P4RuntimeRouting::NexthopInfo row;
    row.entryHandle = memberHandle(member.id);
    row.memberId = member.id;
    row.p4PortId = member.port;
    row.dstMac = P4RuntimeRouting::toLinkLayerWords(member.dstMac);
    row.srcMac = P4RuntimeRouting::toLinkLayerWords(member.srcMac);
    row.encapId = member.encap;
    handles->memberIs(member.id, row.entryHandle);
    members->entryIs(row);
  }
  void writeMembers(const Ids& ids) const {
    for (const Id id : ids) {
      writeMember({.id = id});
    }
  }
  [[nodiscard]] static std::unique_ptr<P4RuntimeRouting::EcmpMemberList> groupRow(Id id,
                                                                                  const Ids& list) {
    auto row = std::make_unique<P4RuntimeRouting::EcmpMemberList>();
    row->entryHandle = groupHandle(id);
    row->groupId = id;
    row->membersIs(list);
    return row;
  }
  void writeGroup(Id id, const Ids& list) const {
    handles->groupIs(id, groupHandle(id));
    groups->entryIs(*groupRow(id, list));
  }
  void writeEncap(const Encap& encap = {}) const {
    NexthopGroup::EncapEntry row;
    row.encapId = encap.id;
    row.type = encap.type;
    row.ttl = 64;
    row.dscp = 46;
    row.src = {{10, 0, 0, encap.lastOctet}};
    row.dst = {{10, 0, 1, encap.lastOctet}};
    encaps->entryIs(row);
  }

  [[nodiscard]] static std::vector<std::uint32_t> referencesOf(const auto&... inputs) {
    return {inputs->references()...};
  }
  // Code and message of an open write.
  [[nodiscard]] std::string outcome(P4Runtime::EntryHandle handle) const {
    const auto entry = batchStatus->batchStatusEntry(handle);
    return P4Runtime::errorCodeText(entry->errorCode()) + ": " + entry->message();
  }

 public:
  static inline double now = 100;

  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig =
      Korm::makePtr<OpenFlowTable::CorvexHwConfig>(Ostra::p4rtName);
  const Korm::Ptr<CorvexConfig::Config> cxConfig =
      Korm::makePtr<CorvexConfig::Config>(Ostra::p4rtName);
  const Korm::Ptr<Korm::Dir> cxHwStatusDir = Korm::makePtr<Korm::Dir>("dyninputstatus");
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> groups =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>("groups");
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> members =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>("members");
  const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encaps =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  const Korm::Ptr<P4Runtime::VrfIdCollection> vrfs = Korm::makePtr<P4Runtime::VrfIdCollection>();
  const Korm::Ptr<P4RuntimeConfig::PortMappingStatus> ports =
      Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  const Korm::Ptr<P4Runtime::ValidationHelper> validation =
      Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus);
  const Korm::Ptr<Ostra::OstraStatusInfo> statusInfo = Ostra::ostraStatusInfoFactory();
  const Korm::Ptr<P4Runtime::Telemetry> telemetry = Korm::makePtr<P4Runtime::Telemetry>();
  const Korm::Ptr<P4Runtime::P4HandleMgr> handles = Korm::makePtr<P4Runtime::P4HandleMgr>();
  Results results{*batchStatus};
};

}  // namespace OstraTest
