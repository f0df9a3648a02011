// From a controller's write to its result, through the whole library as an integrator creates it. The
// hardware is the test: it reads what Corvex wants and publishes what it likes, when it likes.
#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Ostra/FlowUtil.h"
#include "Ostra/Ostra.h"
#include "platform/CorvexConfig/Config.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/P4Runtime/HandleMgr.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"
#include "tests/Ostra/StatusTestSupport.h"

namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;
using StatusTest::AllHeard;

class StatusEndToEnd : public testing::Test {
 protected:
  StatusEndToEnd() {
    tables_->ostraConfigIs(Ostra::FlowTableIndex{0}, flows_);
    tables_->p4rtEcmpGroupTableIs(groups_);
    tables_->p4rtEcmpMemberTableIs(members_);
    ports_->portIs(1, Interface::IntfId{"Ethernet1"});
    NexthopGroup::EncapEntry encap;
    encap.encapId = 9;
    encap.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    encaps_->entryIs(encap);

    manager_->typeIs<OpenFlowTable::CorvexHwConfig>();
    manager_->typeIs<CorvexConfig::Config>();
    manager_->entityIs("corvex/cxHwStatusDir/dyninputstatus", hwStatusDir_);
    manager_->entityIs("openflow/corvexhwstatusdir", counterDir_);
    manager_->entityIs("routing/l2nexthopgroup/ipv4EncapTable", encaps_);
    context_ = Ostra::ostraContextFactory(
        tables_, vrfs_, ports_, batch_, Korm::makePtr<P4Runtime::Telemetry>(), handles_,
        Korm::makePtr<P4Runtime::DefaultValidationHelper>(batch_), counters_);
    Tessel::MountGroup mounts;
    context_->doMounts(mounts);
    context_->doMountsComplete(manager_->complete(mounts), manager_);
    hwConfig_ = manager_->entity<OpenFlowTable::CorvexHwConfig>("corvex/dyninput/p4rt");
    hwStatusDir_->entityIs("p4rt", hw_);
  }

  // The controller writes or deletes the flow of a handle, within one batch until newBatch().
  void write(std::uint64_t handle, std::optional<std::uint32_t> vrf = {}) {
    Ostra::OstraConfigEntry entry;
    entry.entryHandle = handle;
    entry.flowKey = StatusTest::portKey(static_cast<std::uint16_t>(handle));
    entry.vrfGiven = vrf.has_value();
    entry.vrfId = vrf.value_or(0);
    batch_->batchStatusEntryIs(handle);
    flows_->entryIs(entry);
  }
  void remove(std::uint64_t handle) {
    batch_->batchStatusEntryIs(handle);
    ASSERT_TRUE(flows_->entryDel(StatusTest::portKey(static_cast<std::uint16_t>(handle))));
  }
  void newBatch() { batch_->batchStatusEntryDelAll(); }

  // The hardware answers for the flow of a handle, which Corvex must want; it has withdrawn one that
  // Corvex must not want any more.
  void answer(std::uint64_t handle, FlowStatus status) {
    const auto name = Ostra::buildFlowName(handle);
    ASSERT_NE(hwConfig_->flowEntry(name), nullptr) << name;
    if (const auto* const present = hw_->flowStats(name); present && present->status() == status) {
      hw_->flowStatsIs(name).changeCountIs(++changes_);
    } else {
      hw_->flowStatsIs(name, status).statusIs(status);
    }
  }
  void withdraw(std::uint64_t handle) {
    const auto name = Ostra::buildFlowName(handle);
    ASSERT_EQ(hwConfig_->flowEntry(name), nullptr) << name;
    hw_->flowStatsDel(name);
  }

  AllHeard heard() { return results_.take(); }
  [[nodiscard]] std::pair<std::uint32_t, std::string> outcome(std::uint64_t handle) const {
    const auto entry = batch_->batchStatusEntry(handle);
    return {static_cast<std::uint32_t>(entry->errorCode()), entry->message()};
  }

  const Korm::Ptr<Ostra::OstraConfigTableColl> tables_ =
      Korm::makePtr<Ostra::OstraConfigTableColl>();
  const Korm::Ptr<Ostra::OstraConfig> flows_ = Korm::makePtr<Ostra::OstraConfig>("0");
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> groups_ =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>("groups");
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> members_ =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>("members");
  const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encaps_ =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  const Korm::Ptr<P4Runtime::VrfIdCollection> vrfs_ = Korm::makePtr<P4Runtime::VrfIdCollection>();
  const Korm::Ptr<P4RuntimeConfig::PortMappingStatus> ports_ =
      Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  const Korm::Ptr<P4Runtime::BatchStatus> batch_ = Korm::makePtr<P4Runtime::BatchStatus>();
  const Korm::Ptr<P4Runtime::P4HandleMgr> handles_ = Korm::makePtr<P4Runtime::P4HandleMgr>();
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters_ =
      Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>();
  const Korm::Ptr<Tessel::EntityManager> manager_ = Korm::makePtr<Tessel::EntityManager>();
  const Korm::Ptr<Korm::Dir> hwStatusDir_ = Korm::makePtr<Korm::Dir>("dyninputstatus");
  const Korm::Ptr<Korm::Dir> counterDir_ = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  Korm::Ptr<HwStatus> hw_ = Korm::makePtr<HwStatus>("p4rt");
  StatusTest::Results results_{*batch_};
  Korm::Ptr<Ostra::OstraContext> context_;
  Korm::Ptr<OpenFlowTable::CorvexHwConfig> hwConfig_;
  double changes_ = 0;
};

TEST_F(StatusEndToEnd, AWriteIsAnsweredWhenTheHardwareIsDone) {
  write(1);
  EXPECT_EQ(heard(), AllHeard{}) << "the hardware has not answered";
  answer(1, FlowStatus::pending_);
  answer(1, FlowStatus::programming_);
  EXPECT_EQ(heard(), AllHeard{});
  answer(1, FlowStatus::programmed_);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}}));

  newBatch();
  remove(1);
  EXPECT_EQ(heard(), AllHeard{}) << "a delete is done when the hardware has withdrawn the flow";
  withdraw(1);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}}));
}

TEST_F(StatusEndToEnd, AModifyIsAnsweredByItsLastResult) {
  write(1);
  answer(1, FlowStatus::programmed_);
  heard();
  newBatch();
  write(1);
  answer(1, FlowStatus::programmed_);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}})) << "by the change count, the status stays";
  newBatch();
  write(1);
  answer(1, FlowStatus::hardwareFull_);
  EXPECT_EQ(outcome(1).first, 1U);
  answer(1, FlowStatus::programmed_);
  EXPECT_EQ(outcome(1).first, 0U);
  EXPECT_EQ(heard(), (AllHeard{{1, 1, "", false}, {1, 0, "", false}}));
}

TEST_F(StatusEndToEnd, EachWriteGetsItsOwnResultInWhateverOrderTheyCome) {
  const std::array<std::pair<FlowStatus, std::uint32_t>, 7> rows{{
      {FlowStatus::programmed_, 0},
      {FlowStatus::matchNotSupported_, 7},
      {FlowStatus::actionNotSupported_, 6},
      {FlowStatus::hardwareFull_, 1},
      {FlowStatus::hardwareError_, 19},
      {FlowStatus::actionSetNotSupported_, 6},
      {FlowStatus{14}, 19},
  }};
  for (std::uint64_t handle = 0; handle < rows.size(); ++handle) {
    write(handle);
  }
  AllHeard expected;
  for (const std::uint64_t handle : {4U, 2U, 6U, 0U, 5U, 1U, 3U}) {
    answer(handle, FlowStatus::waitingForInterface_);
    answer(handle, rows[handle].first);
    expected.push_back({handle, rows[handle].second, "", false});
  }
  EXPECT_EQ(heard(), expected);
  for (std::uint64_t handle = 0; handle < rows.size(); ++handle) {
    EXPECT_EQ(outcome(handle).first, rows[handle].second) << handle;
  }
}

TEST_F(StatusEndToEnd, AResultIsReportedWhenTheStatusComesBack) {
  write(1);
  write(2);
  answer(1, FlowStatus::pending_);
  hwStatusDir_->entityDel("p4rt");
  answer(1, FlowStatus::programmed_);
  EXPECT_EQ(heard(), AllHeard{}) << "what is not published is not heard";

  const auto gone = std::exchange(hw_, Korm::makePtr<HwStatus>("p4rt"));
  answer(1, FlowStatus::hardwareFull_);
  answer(2, FlowStatus::pending_);
  hwStatusDir_->entityIs("p4rt", hw_);
  EXPECT_EQ(heard(), (AllHeard{{1, 1, "", false}}));
  gone->flowStatsIs("flow-1").statusIs(FlowStatus::hardwareError_);
  answer(2, FlowStatus::programmed_);
  EXPECT_EQ(heard(), (AllHeard{{2, 0, "", false}}));
}

TEST_F(StatusEndToEnd, AVrfsFirstUserAnswersThroughItsRoot) {
  for (const bool dependentFirst : {true, false}) {
    const std::uint64_t first = dependentFirst ? 10 : 20;
    const std::uint32_t vrf = dependentFirst ? 5 : 6;
    newBatch();
    write(first, vrf);
    write(first + 1, vrf);
    write(first + 2);
    const auto root = batch_->aggregatorStatus().rootStatusEntry(first);
    EXPECT_EQ(root->dependentEntryHandles(), std::vector<P4Runtime::EntryHandle>{first});
    AllHeard expected{{first, 7, "", true}, {first + 1, 0, "", false}, {first + 2, 1, "", false}};
    const std::array answers{FlowStatus::matchNotSupported_, FlowStatus::programmed_,
                             FlowStatus::hardwareFull_};
    for (std::size_t at = 0; at < answers.size(); ++at) {
      const std::size_t of = dependentFirst ? at : answers.size() - 1 - at;
      answer(first + of, answers[of]);
    }
    if (!dependentFirst) {
      std::reverse(expected.begin(), expected.end());
    }
    EXPECT_EQ(heard(), expected);
    EXPECT_EQ(outcome(first).first, 7U);
    EXPECT_TRUE(root->dependentEntryHandles().empty());

    answer(first, FlowStatus::programmed_);
    EXPECT_EQ(heard(), (AllHeard{{first, 0, "", false}})) << "the root has had its result";
  }
}

TEST_F(StatusEndToEnd, AVrfsLastUserAnswersThroughItsRoot) {
  write(1, 5);
  write(2, 5);
  answer(2, FlowStatus::programmed_);
  answer(1, FlowStatus::programmed_);
  heard();
  newBatch();
  remove(1);
  remove(2);
  withdraw(2);
  withdraw(1);
  EXPECT_EQ(heard(), (AllHeard{{2, 0, "", true}, {1, 0, "", false}}));
  EXPECT_EQ(vrfs_->vrfDeletorRootHandle(5), P4Runtime::EntryHandle{2});
}

TEST_F(StatusEndToEnd, AMoveBetweenVrfsIsOneDependentResult) {
  write(1, 5);
  answer(1, FlowStatus::programmed_);
  heard();
  newBatch();
  write(1, 6);
  answer(1, FlowStatus::programmed_);
  answer(1, FlowStatus::programmed_);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", true}, {1, 0, "", false}}));
}

TEST_F(StatusEndToEnd, AGroupThatTheHardwareRefusesFailsItsWrite) {
  constexpr GroupId memberGroup = (GroupId{1} << 32U) | 3;
  batch_->batchStatusEntryIs(30);
  handles_->memberIs(3, 30);
  members_->entryIs({.entryHandle = 30, .memberId = 3, .p4PortId = 1, .encapId = 9});
  ASSERT_NE(hwConfig_->groupEntry(memberGroup), nullptr) << outcome(30).second;
  hw_->groupStatsIs(memberGroup, GroupStatus::pending_).statusIs(GroupStatus::ready_);
  EXPECT_EQ(outcome(30).first, 0U);

  static P4RuntimeRouting::EcmpMemberList row;
  row.entryHandle = 40;
  row.groupId = 4;
  row.membersIs(std::array<P4Runtime::MemberOrGroupId, 1>{3}, std::array<std::uint32_t, 1>{1});
  batch_->batchStatusEntryIs(40);
  handles_->groupIs(4, 40);
  groups_->entryIs(row);
  ASSERT_NE(hwConfig_->groupEntry(4), nullptr) << outcome(40).second;
  hw_->groupStatsIs(4, GroupStatus::hardwareFull_);
  EXPECT_EQ(outcome(40),
            (std::pair{1U, std::string{"Hardware resource exhausted for profile group 4"}}));
  hw_->groupStatsIs(memberGroup).statusIs(GroupStatus::actionNotSupported_);
  EXPECT_EQ(outcome(30), (std::pair{6U, std::string{"Action not supported for profile member 3"}}));
}

TEST_F(StatusEndToEnd, DirectCountersAreReadFromEveryUnit) {
  write(7);
  for (const char* const unit : {"unit-0", "unit-1"}) {
    const auto status = Korm::makePtr<HwStatus>(unit);
    status->flowStatsIs("flow-7-p4rt").countersIs(10, 1000);
    counterDir_->entityIs(unit, status);
  }
  EXPECT_EQ(counters_->counterImplMap(0)->getCounters(7), (P4Runtime::P4CounterData{0, 20, 2000}));
}

TEST_F(StatusEndToEnd, NothingIsReportedOnceTheLibraryIsGone) {
  write(1);
  answer(1, FlowStatus::pending_);
  context_ = nullptr;
  answer(1, FlowStatus::programmed_);
  hwStatusDir_->entityDel("p4rt");
  EXPECT_EQ(heard(), AllHeard{});
  EXPECT_EQ(hw_->references(), 1U);
}

}  // namespace
