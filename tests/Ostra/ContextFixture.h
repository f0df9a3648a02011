// A context in a service: the state database with all that is to be mounted, and the service's objects,
// with flow tables in the slots 0, 3, 14 and 15.
#pragma once

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "FlowFixture.h"
#include "Ostra/Ostra.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraStatusSm.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/P4Runtime/HandleMgr.h"

namespace OstraTest {

using Ostra::FlowTableIndex;
using Ostra::OstraContext;
using Tessel::MountStatus;

inline constexpr const char* cxHwStatusDirPath = "corvex/cxHwStatusDir/dyninputstatus";
inline constexpr const char* flowCounterDirPath = "openflow/corvexhwstatusdir";
inline constexpr const char* ipv4EncapTablePath = "routing/l2nexthopgroup/ipv4EncapTable";

class ContextFixture : public FlowFixture {
 protected:
  ContextFixture() {
    manager->entityIs("corvex/dyninput/p4rt", cxHwConfig);
    manager->entityIs(cxHwStatusDirPath, cxHwStatusDir);
    manager->entityIs("corvex/configDir/p4rt", cxConfig);
    manager->entityIs(flowCounterDirPath, flowCounterDir);
    manager->entityIs("interface/status/all", Korm::makePtr<Interface::AllIntfStatusDir>("all"));
    manager->entityIs(ipv4EncapTablePath, encapTable);
    for (const int index : {0, 3, 14, 15}) {
      tables->ostraConfigIs(FlowTableIndex{index},
                            Korm::makePtr<Ostra::OstraConfig>(std::to_string(index)));
    }
    tables->p4rtEcmpGroupTableIs(groupTable);
    tables->p4rtEcmpMemberTableIs(memberTable);
  }

  void make() {
    context = Ostra::ostraContextFactory(tables, vrfs, ports, batchStatus, telemetry, handles,
                                         validation, counters);
  }
  void complete(MountStatus status = MountStatus::success_) {
    context->doMountsComplete(status, manager);
  }
  void makeComplete() {
    make();
    complete();
  }
  [[nodiscard]] Ostra::OstraConfig& flowTable(std::uint8_t index) const {
    return *tables->ostraConfig(FlowTableIndex{index});
  }
  [[nodiscard]] Korm::Ptr<Ostra::OstraSm> flowSm(std::uint8_t index) const {
    const auto found = context->ostraSmColl().find(index);
    return found == context->ostraSmColl().end() ? nullptr : found->second;
  }
  // A member with its encapsulation entry, and its write under way.
  void writeMember(P4Runtime::MemberOrGroupId id, P4Runtime::EntryHandle handle) {
    NexthopGroup::EncapEntry encap;
    encap.encapId = 9;
    encap.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    encapTable->entryIs(encap);
    batchStatus->batchStatusEntryIs(handle);
    handles->memberIs(id, handle);
    memberTable->entryIs({.entryHandle = handle, .memberId = id, .p4PortId = 1, .encapId = 9});
  }

  const Korm::Ptr<Tessel::EntityManager> manager = Korm::makePtr<Tessel::EntityManager>();
  const Korm::Ptr<Korm::Dir> flowCounterDir = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encapTable =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  const Korm::Ptr<Ostra::OstraConfigTableColl> tables =
      Korm::makePtr<Ostra::OstraConfigTableColl>();
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> groupTable =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>();
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> memberTable =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>();
  const Korm::Ptr<P4Runtime::P4HandleMgr> handles = Korm::makePtr<P4Runtime::P4HandleMgr>();
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters =
      Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>();
  Korm::Ptr<OstraContext> context;
};

}  // namespace OstraTest
