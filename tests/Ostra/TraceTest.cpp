// What an operator reads: every line that the library traces, with its level, by the unit that it
// names.
#include <map>
#include <string>

#include "ContextFixture.h"
#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"

namespace OstraTest {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;

class Trace : public Context {
 protected:
  Trace() {
    Ostra::traceHandle.levelIs(9);
    Brisklog::textSinkIs([this](const Brisklog::TextMessage& message) {
      EXPECT_EQ(message.handle, "Ostra");
      lines_[std::string{message.unit}].push_back(std::to_string(message.level) + " " +
                                                  std::string{message.text});
    });
  }
  ~Trace() override {
    Brisklog::textSinkIs(nullptr);
    Ostra::traceHandle.levelIs(-1);
  }

  // The lines since the last call.
  std::map<std::string, Texts> take() { return std::exchange(lines_, {}); }
  using Lines = std::map<std::string, Texts>;

  void writeMember(std::uint32_t id, NexthopGroup::EncapId encap) {
    members->entryIs({.entryHandle = 50 + id, .memberId = id, .p4PortId = 1, .encapId = encap});
  }
  void writeGroup(std::uint32_t id, const std::vector<std::uint32_t>& list) {
    static P4RuntimeRouting::EcmpMemberList row;
    row.entryHandle = 60 + id;
    row.groupId = id;
    row.membersIs(list);
    groups->entryIs(row);
  }

 private:
  Lines lines_;
};

TEST_F(Trace, OfTheStart) {
  writeEncap();
  writeMember(5, 9);
  writeGroup(3, {5});
  const auto hw = publishHwStatus();
  hw->flowStatsIs("flow-42", FlowStatus::programmed_);
  hw->groupStatsIs(3);
  make();
  Tessel::MountGroup mounts;
  context->doMounts(mounts);
  complete();
  EXPECT_EQ(
      take(),
      (Lines{
          {"Ostra/Ostra", {"5 OstraContext::doMounts", "5 OstraContext::doMountsComplete"}},
          {"Ostra/OstraEcmpGroupSm",
           {"0 OstraEcmpGroupSm::handleInitialized", "0 OstraEcmpGroupSm::handleEncapEntry",
            "0 OstraEcmpGroupSm::handleEncapEntry encapId: 9",
            "0 OstraEcmpGroupSm::handleNexthopInfo memberId: 5",
            "0 OstraEcmpGroupSm::validateNexthop",
            "5 OstraEcmpGroupSm::handleNexthopInfoUpdate Add ofGroup: 4294967301 for memberId: 5",
            "0 OstraEcmpGroupSm::maybeUpdateGroupOnMemberChange member id: 5",
            "0 OstraEcmpGroupSm::handleNexthopInfo",
            "0 OstraEcmpGroupSm::handleNexthopInfo memberId: 5",
            "0 OstraEcmpGroupSm::validateNexthop",
            "5 OstraEcmpGroupSm::handleNexthopInfoUpdate Add ofGroup: 4294967301 for memberId: 5",
            "0 OstraEcmpGroupSm::maybeUpdateGroupOnMemberChange member id: 5",
            "0 OstraEcmpGroupSm::handleEcmpGroup", "0 OstraEcmpGroupSm::handleEcmpGroup groupId=3",
            "5 OstraEcmpGroupSm::addEcmpGroup Add member ofGroup: 4294967301 for group: 3",
            "5 OstraEcmpGroupSm::addEcmpGroup Add ofGroup: 3 for groupId: 3"}},
          {"Ostra/OstraSm", Texts(15, "5 OstraSm::handleInitialized")},
          {"Ostra/OstraStatus",
           {"5 OstraStatusDirSm::handleInitialized", "5 OstraStatusDirSm::handleStatusDir",
            "5 OstraStatusDirSm::handleStatusDir p4rt", "5 OstraStatusDirSm create statusSm",
            "5 OstraStatusSm::handleInitialized", "5 OstraStatusSm::handleFlowHwStatus",
            "5 OstraStatusSm::handleFlowHwStatus Modify/insert status update for flow: flow-42 "
            "status: 1",
            "5 OstraStatusSm::handleGroupHwStatus",
            "5 OstraStatusSm::handleGroupHwStatus groupId: 3",
            "7 group status update for flow: 3 status: 0"}}}));
}

TEST_F(Trace, OfAFlow) {
  makeComplete();
  table = tables->ostraConfig(FlowTableIndex{0});
  OstraConfigEntry entry = flow(7, {});
  entry.flowKey.tableTypeIs(1);
  entry.flowKey.priorityGroupTypeIs(4);
  entry.flowKey.ingressPortIs(1, 0xFFFFFFFF);
  entry.flowKey.egressPortIs(2, 0xFFFFFFFF);
  entry.flowKey.etherTypeIs(0x86DD, 0xFFFF);
  entry.flowKey.isIpPacketIs(true, true);
  entry.flowKey.ip6SrcIs(*Korm::parseIpAddr("2001:db8::1"), *Korm::parseIpAddr("ffff::"));
  entry.flowKey.innerL3DataIs(9, 0xFF);
  entry.outputPortIs(3);
  entry.vlanGiven = true;
  entry.vlanId = 12;
  take();
  const auto lines = [](const std::string& vlan, const std::string& done) {
    return Texts{"5 OstraSm::handleFlowConfigImpl insert flow:flow-7",
                 "5 OstraSm::handleFlowConfigImpl matchIntf:Et1",
                 "5 OstraSm::handleFlowConfigImpl match egressIntf:Et2",
                 "5 OstraSm::validateFlowKey",
                 "5 OstraSm::handleFlowConfigImpl matchIp6:2001:db8::1",
                 "5 OstraSm::handleFlowConfigImpl innerL3Data:9",
                 "5 OstraSm::handleFlowConfigImpl isIpPacketValid true. isIpPacketMask true",
                 "5 OstraSm::handleFlowConfigImpl P4 egressIntf:3 intfId:Ethernet3",
                 "5 OstraSm::handleFlowConfigImpl P4 VlanId:12 cx vlanId:" + vlan,
                 "5 OstraSm::validateFlowAction",
                 "5 OstraSm::handleFlowConfigImplmaybeUpdateFlowMatch tableType 1 prioGroupType4",
                 "5 OstraSm::handleFlowConfigImplreplace ethertype 34525 with l3PacketType 3",
                 "5 OstraSm::handleFlowConfigImpl " + done + "  flow:flow-7 EntryId: 1007"};
  };
  write(entry);
  EXPECT_EQ(take(), (Lines{{"Ostra/OstraSm", lines("12", "inserted")}}));
  entry.vlanGiven = false;
  write(entry);
  EXPECT_EQ(take(), (Lines{{"Ostra/OstraSm", lines("0", "modified")}}));
  remove(entry);
  EXPECT_EQ(take(),
            (Lines{{"Ostra/OstraSm", {"5 OstraSm::handleFlowConfigImpl deleting flow:flow-7"}}}));

  OstraConfigEntry second = flowInVrf(8, 1, 3);
  second.flowKey.etherTypeIs(0x0806, 0xFFFF);
  second.flowKey.arpTargetIs(*Korm::parseIpAddr("10.1.2.3"), *Korm::parseIpAddr("255.0.0.0"));
  write(second);
  second.vrfId = 4;
  table->entryIs(second);
  cxHwConfig->flowEntryDel("flow-8");
  remove(second);
  flowSm(0)->handleFlowConfig(plainKey(9));
  EXPECT_EQ(
      take(),
      (Lines{{"Ostra/OstraSm",
              {"5 OstraSm::handleFlowConfigImpl insert flow:flow-8", "5 OstraSm::validateFlowKey",
               "5 OstraSm::handleFlowConfigImpl matchIp:10.1.2.3",
               "5 OstraSm::handleFlowConfigImpl P4 VlanId:0 cx vlanId:0",
               "5 OstraSm::handleVrfChange add vrf 3 refCount 1",
               "5 OstraSm::handleVrfChange adding rootStatus, entryVrf:3 entryHandle:8",
               "5 OstraSm::validateFlowAction",
               "5 OstraSm::handleFlowConfigImpl inserted  flow:flow-8 EntryId: 1008",
               "5 OstraSm::handleFlowConfigImpl insert flow:flow-8", "5 OstraSm::validateFlowKey",
               "5 OstraSm::handleFlowConfigImpl matchIp:10.1.2.3",
               "5 OstraSm::handleFlowConfigImpl P4 VlanId:0 cx vlanId:0",
               "5 OstraSm::handleVrfChange del vrf 3 refCount 0",
               "5 OstraSm::handleVrfChange add vrf 4 refCount 1",
               "5 OstraSm::handleVrfChange adding rootStatus, entryVrf:4 entryHandle:8",
               "5 OstraSm::validateFlowAction",
               "5 OstraSm::handleFlowConfigImpl modified  flow:flow-8 EntryId: 1008",
               "4 OstraSm::handleFlowConfigImpl flowNameflow-8 is not present in CX",
               "4 OstraSm::handleFlowConfigImpl flowKey is not mapped to entryHandle " +
                   plainKey(9).valueToStrep()}}}));
}

TEST_F(Trace, OfGroupsAndMembers) {
  makeComplete();
  take();
  writeEncap();
  writeMember(12, 9);
  writeGroup(3, {12});
  writeMember(12, 8);
  EXPECT_EQ(
      take(),
      (Lines{
          {"Ostra/OstraEcmpGroupSm",
           {"0 OstraEcmpGroupSm::handleEncapEntry encapId: 9",
            "0 OstraEcmpGroupSm::handleNexthopInfo memberId: 12",
            "0 OstraEcmpGroupSm::validateNexthop",
            "5 OstraEcmpGroupSm::handleNexthopInfoUpdate Add ofGroup: 4294967308 for memberId: 12",
            "0 OstraEcmpGroupSm::maybeUpdateGroupOnMemberChange member id: 12",
            "0 OstraEcmpGroupSm::handleEcmpGroup groupId=3",
            "5 OstraEcmpGroupSm::addEcmpGroup Add member ofGroup: 4294967308 for group: 3",
            "5 OstraEcmpGroupSm::addEcmpGroup Add ofGroup: 3 for groupId: 3",
            "0 OstraEcmpGroupSm::handleNexthopInfo memberId: 12",
            "0 OstraEcmpGroupSm::validateNexthop",
            "4 OstraEcmpGroupSm::validateNexthop Action profile member: 12 has invalid encapId: "
            "8"}}}));
  writeGroup(4, {});
  members->entryDel(12);
  groups->entryDel(3);
  groups->entryDel(4);
  EXPECT_EQ(
      take(),
      (Lines{
          {"Ostra/OstraEcmpGroupSm",
           {"0 OstraEcmpGroupSm::handleEcmpGroup groupId=4",
            "4 OstraEcmpGroupSm::addEcmpGroup Action profile group: 4 has empty member",
            "0 OstraEcmpGroupSm::handleNexthopInfo memberId: 12",
            "5 OstraEcmpGroupSm::handleNexthopInfoDelete ofGroup 4294967308 deleted in CX config",
            "5 OstraEcmpGroupSm::handleNexthopInfoDelete memberId: 12 deleted",
            "0 OstraEcmpGroupSm::handleEcmpGroup groupId=3",
            "5 OstraEcmpGroupSm::deleteEcmpGroup ofGroup 3 deleted in CX config",
            "5 OstraEcmpGroupSm::deleteEcmpGroup groupId: 3 deleted",
            "0 OstraEcmpGroupSm::handleEcmpGroup groupId=4",
            "5 OstraEcmpGroupSm::deleteEcmpGroup groupId: 4 deleted"}}}));
}

TEST_F(Trace, OfTheHardwaresStatus) {
  makeComplete();
  const auto hw = publishHwStatus();
  take();
  hw->flowStatsIs("flow-7", FlowStatus::programming_);
  EXPECT_EQ(Ostra::flowIdFromName("flow-0"), 0U) << "a name that parses is not traced";
  context->ostraStatusDirSm()->inputs().ostraStatusInfo->dependentHandleToVrfMapIs(7, 5);
  hw->flowStatsDel("flow-7");
  hw->flowStatsIs("stray", FlowStatus::programming_);
  EXPECT_EQ(take(),
            (Lines{{"Ostra/FlowUtil", {"0 Ostra::flowIdFromName Invalid flow Name: stray"}},
                   {"Ostra/OstraStatus",
                    {"5 OstraStatusSm::handleFlowHwStatus Modify/insert status update for flow: "
                     "flow-7 status: 3",
                     "5 OstraStatusSm::handleFlowHwStatusDelete status update for flow: flow-7",
                     "5 handleFlowHwStatus dependentHandle:7 vrfId:5",
                     "5 OstraStatusSm::handleFlowHwStatus Modify/insert status update for flow: "
                     "stray status: 3"}}}));
  writeGroup(5, {});
  take();
  hw->groupStatsIs(5, GroupStatus::hardwareFull_);
  hw->groupStatsIs(4294967302);
  hw->groupStatsIs(6);
  hw->groupStatsDel(5);
  cxHwStatusDir->entityIs("other", Korm::makePtr<Korm::Dir>("other"));
  cxHwStatusDir->entityDel("p4rt");
  EXPECT_EQ(
      take(),
      (Lines{
          {"Ostra/OstraStatus",
           {"5 OstraStatusSm::handleGroupHwStatus groupId: 5",
            "7 group status update for flow: 5 status: 3",
            "5 OstraStatusSm::handleGroupHwStatus groupId: 4294967302",
            "7 member not in p4rt table for OF groupId: 4294967302",
            "5 OstraStatusSm::handleGroupHwStatus groupId: 6",
            "7 group not in p4rt table for OF groupId: 6",
            "5 OstraStatusSm::handleGroupHwStatus groupId: 5",
            "7  group status deleted for group: 5", "5 OstraStatusDirSm::handleStatusDir other",
            "5 OstraStatusDirSm::handleStatusDir p4rt", "5 OstraStatusDirSm delete statusSm"}}}));
}

}  // namespace
}  // namespace OstraTest
