#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatusSm.h"
#include "tests/Ostra/ServiceFixture.h"

namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;
using Ostra::OstraStatusSm;

constexpr GroupId memberBit = GroupId{1} << 32U;

// The result that a flow status is, "" for none.
std::string resultOf(FlowStatus status) {
  switch (status) {
    case FlowStatus::pending_:
    case FlowStatus::programming_:
    case FlowStatus::waitingForGroup_:
    case FlowStatus::waitingForInterface_:
    case FlowStatus::deleting_:
      return "";
    case FlowStatus::programmed_:
    case FlowStatus::programmedInSoftware_:
      return "success";
    case FlowStatus::matchNotSupported_:
      return "matchNotSupported";
    case FlowStatus::actionNotSupported_:
    case FlowStatus::actionSetNotSupported_:
      return "actionNotSupported";
    case FlowStatus::hardwareFull_:
      return "hardwareResourceExhausted";
    default:
      return "hardwareError";
  }
}

// A directory with a "p4rt" hardware status, and a state machine over it.
class StatusSm : public OstraTest::ServiceFixture {
 protected:
  void start() {
    sm = Ostra::ostraStatusDirSmFactory(cxHwStatusDir, batchStatus, statusInfo, groups, members);
  }
  // What the last step made the service hear.
  std::string heard() { return results.take(); }
  [[nodiscard]] std::size_t flowReactors() const {
    return sm->p4RtCxStatusSm()->flowStats().size();
  }

  OpenFlowTable::FlowStats& flow(const char* name, FlowStatus status) {
    return hw->flowStatsIs(name, status);
  }
  // A group's or member's row, with its write under way under that handle.
  void groupRow(std::uint32_t id, std::uint64_t handle) {
    static P4RuntimeRouting::EcmpMemberList row;
    row.groupId = id;
    row.entryHandle = handle;
    groups->entryIs(row);
    batchStatus->batchStatusEntryIs(handle);
  }
  void memberRow(std::uint32_t id, std::uint64_t handle) {
    members->entryIs({.entryHandle = handle, .memberId = id});
    batchStatus->batchStatusEntryIs(handle);
  }

 public:
  Korm::Ptr<HwStatus> hw = publishHwStatus();
  Korm::Ptr<Ostra::OstraStatusDirSm> sm;
};

TEST_F(StatusSm, StartsWithWhatTheHardwareSaysAlready) {
  flow("flow-1", FlowStatus::programmed_);
  flow("flow-2", FlowStatus::programming_);
  auto& third = flow("flow-3", FlowStatus::actionNotSupported_);
  groupRow(5, 50);
  hw->groupStatsIs(5, GroupStatus::hardwareFull_);
  cxHwStatusDir->entityIs("another", Korm::makePtr<HwStatus>("another"));
  start();
  EXPECT_TRUE(sm->initialized() && sm->p4RtCxStatusSm()->initialized());
  EXPECT_EQ(heard(), "1 success; 3 actionNotSupported");
  EXPECT_EQ(outcome(50),
            "hardwareResourceExhausted: Hardware resource exhausted for profile group 5");
  EXPECT_EQ(flowReactors(), 3U);
  EXPECT_EQ(sm->p4RtCxStatusSm()->groupStats().size(), 1U);
  third.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), "3 success");
}

TEST_F(StatusSm, ANameThatIsNoFlowsIsHandleZero) {
  start();
  flow("stray", FlowStatus::programmed_);
  flow("flow-42xyz", FlowStatus::hardwareError_);
  hw->flowStatsDel("stray");
  EXPECT_EQ(heard(), "0 success; 42 hardwareError; 0 success");
}

TEST_F(StatusSm, ADependentResultGoesToTheRootOnce) {
  start();
  batchStatus->batchStatusEntryIs(7);
  const auto root = batchStatus->aggregatorStatus().rootStatusEntry(7);
  root->dependentEntryHandleIs(7, true);
  statusInfo->dependentHandleToVrfMapIs(7, 5);

  auto& stats = flow("flow-7", FlowStatus::waitingForGroup_);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(7), 5U) << "not final, still waited for";
  stats.statusIs(FlowStatus::hardwareFull_);
  EXPECT_EQ(heard(), "dependent 7 hardwareResourceExhausted");
  EXPECT_EQ(root->dependentEntryHandles().size(), 0U);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(7), Vrf::VrfIdMap::none);
  stats.changeCountIs(1);
  EXPECT_EQ(heard(), "7 hardwareResourceExhausted");

  statusInfo->dependentHandleToVrfMapIs(8, 5);
  auto& rootless = flow("flow-8", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "") << "no root to tell";
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(8), Vrf::VrfIdMap::none);
  rootless.changeCountIs(1);
  EXPECT_EQ(heard(), "8 success");
}

TEST_F(StatusSm, AGroupsFailureIsTheResultOfItsWrite) {
  groupRow(5, 50);
  memberRow(5, 60);
  start();
  const std::map<std::uint32_t, std::string> failures{
      {2, "actionNotSupported: Action not supported for profile "},
      {3, "hardwareResourceExhausted: Hardware resource exhausted for profile "},
      {4, "hardwareError: Unknown error to program profile "}};
  for (const auto& [id, handle, what] :
       {std::tuple{GroupId{5}, 50U, "group 5"}, std::tuple{memberBit | 5, 60U, "member 5"}}) {
    for (const std::uint32_t status : {0U, 1U, 2U, 3U, 4U, 5U, 0xFFFFFFFFU}) {
      const auto failure = failures.find(status);
      const std::string expected =
          failure == failures.end() ? "success: before" : failure->second + what;
      auto& stats = hw->groupStatsIs(id, GroupStatus::ready_);
      batchStatus->batchStatusEntryIs(handle)->messageIs("before");
      stats.statusIs(GroupStatus{status});
      EXPECT_EQ(outcome(handle), expected) << "by the status " << status;
      batchStatus->batchStatusEntryIs(handle)->messageIs("before");
      stats.changeCountIs(1);
      EXPECT_EQ(outcome(handle), expected) << "by the change count";
      hw->groupStatsDel(id);
    }
  }
  EXPECT_EQ(heard(), "") << "groups have no result of their own";
}

TEST_F(StatusSm, AGroupWithoutARowOrAnOpenWriteIsPassedOver) {
  start();
  groupRow(5, 50);
  memberRow(6, 60);
  hw->groupStatsIs(6, GroupStatus::hardwareFull_);
  hw->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);
  EXPECT_EQ(outcome(50), "success: ");
  EXPECT_EQ(outcome(60), "success: ");

  auto& stats = hw->groupStatsIs(5, GroupStatus::ready_);
  batchStatus->batchStatusEntryDel(50);
  stats.statusIs(GroupStatus::hardwareError_);
  EXPECT_EQ(batchStatus->entries(), 1U);

  // A failure stands until the write is made again, whatever the group does.
  stats.statusIs(GroupStatus::ready_);
  batchStatus->batchStatusEntryIs(50);
  stats.statusIs(GroupStatus::hardwareError_);
  stats.statusIs(GroupStatus::ready_);
  hw->groupStatsDel(5);
  EXPECT_EQ(outcome(50), "hardwareError: Unknown error to program profile group 5");
  EXPECT_EQ(sm->p4RtCxStatusSm()->groupStats().size(), 2U);
}

TEST_F(StatusSm, ACorruptMemberRowIsReportedAndPassedOver) {
  start();
  memberRow(5, 50);
  std::vector<std::string> reports;
  members->corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  const_cast<P4RuntimeRouting::NexthopInfo*>(members->entry(5))->p4PortId ^= 1U;
  hw->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);
  EXPECT_EQ(reports.size(), 1U);
  EXPECT_EQ(outcome(50), "success: ");
}

TEST_F(StatusSm, FollowsTheEntityNamedP4rtOnly) {
  cxHwStatusDir->entityDel("p4rt");
  cxHwStatusDir->entityIs("other", hw);
  start();
  flow("flow-1", FlowStatus::programmed_);
  cxHwStatusDir->entityIs("p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr) << "of another type";
  cxHwStatusDir->entityIs("p4rt", hw);
  EXPECT_EQ(heard(), "1 success");

  const Korm::Ptr<OstraStatusSm> made = sm->p4RtCxStatusSm();
  cxHwStatusDir->entityIs("third", Korm::makePtr<HwStatus>("third"));
  cxHwStatusDir->entityDel("other");
  sm->handleStatusDir();
  EXPECT_EQ(sm->p4RtCxStatusSm(), made) << "the same entity again";
  EXPECT_EQ(heard(), "");

  cxHwStatusDir->entityIs("p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr) << "mistyped, although there was one";
  flow("flow-2", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "") << "also while somebody still holds the state machine";
}

TEST_F(StatusSm, AReplacedEntityRebuildsAndTheOldOneIsSilent) {
  start();
  flow("flow-1", FlowStatus::programmed_);
  const Korm::Ptr<HwStatus> old = std::exchange(hw, Korm::makePtr<HwStatus>("p4rt"));
  auto& second = flow("flow-2", FlowStatus::matchNotSupported_);
  heard();
  cxHwStatusDir->entityIs("p4rt", hw);
  EXPECT_EQ(heard(), "2 matchNotSupported");
  EXPECT_EQ(old->references(), 1U) << "nothing of the library holds it";
  old->flowStatsIs("flow-1").changeCountIs(1);
  old->flowStatsIs("flow-3", FlowStatus::programmed_);
  cxHwStatusDir->entityDel("p4rt");
  second.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), "");
  cxHwStatusDir->entityIs("p4rt", hw);
  EXPECT_EQ(heard(), "2 success") << "back, with what it says now";
}

TEST_F(StatusSm, AStateMachineIsKeptForTheVerySameInputsOnly) {
  start();
  const auto made = sm->p4RtCxStatusSm();
  const auto otherInfo = Ostra::ostraStatusInfoFactory();
  EXPECT_EQ(sm->p4RtCxStatusSmIs(hw, batchStatus, statusInfo, groups, members), made);
  EXPECT_NE(sm->p4RtCxStatusSmIs(hw, batchStatus, otherInfo, groups, members), made);
  EXPECT_NE(
      sm->p4RtCxStatusSmIs(hw, batchStatus, otherInfo, groups, nullptr)->inputs().ostraStatusInfo,
      statusInfo);
  EXPECT_FALSE(made->hasNotificationActive());
  EXPECT_TRUE(sm->p4RtCxStatusSm()->hasNotificationActive());
}

TEST_F(StatusSm, IsSilentWhenSwitchedOffOrDestroyed) {
  auto& stats = flow("flow-1", FlowStatus::programmed_);
  auto& group = hw->groupStatsIs(5, GroupStatus::ready_);
  groupRow(5, 50);
  start();
  heard();
  sm->hasNotificationActiveIs(false);
  stats.changeCountIs(1);
  flow("flow-2", FlowStatus::programmed_);
  group.statusIs(GroupStatus::hardwareError_);
  EXPECT_EQ(heard(), "");
  EXPECT_EQ(outcome(50), "success: ");
  sm->hasNotificationActiveIs(true);
  stats.changeCountIs(2);
  group.changeCountIs(2);
  EXPECT_EQ(heard(), "1 success");
  EXPECT_EQ(outcome(50), "hardwareError: Unknown error to program profile group 5");
  sm = nullptr;
  stats.changeCountIs(3);
  cxHwStatusDir->entityDel("p4rt");
  hw->flowStatsDel("flow-1");
  EXPECT_EQ(heard(), "");
  EXPECT_EQ(hw->references(), 1U);
}

TEST_F(StatusSm, WorksWithoutWhatMayBeMissing) {
  flow("flow-1", FlowStatus::programmed_);
  hw->groupStatsIs(5, GroupStatus::hardwareFull_);
  sm = Ostra::ostraStatusDirSmFactory(cxHwStatusDir, nullptr, nullptr, nullptr, nullptr);
  flow("flow-1", FlowStatus::programmed_).statusIs(FlowStatus::hardwareFull_);
  hw->flowStatsDel("flow-1");
  hw->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);

  statusInfo->dependentHandleToVrfMapIs(2, 5);
  sm = Ostra::ostraStatusDirSmFactory(cxHwStatusDir, nullptr, statusInfo, groups, members);
  groupRow(6, 60);
  flow("flow-2", FlowStatus::programmed_);
  hw->groupStatsIs(6, GroupStatus::hardwareFull_);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(2), Vrf::VrfIdMap::none)
      << "nobody to tell, and done with";
}

// The service, on hearing of a result, may change the very thing that is being reported.
TEST_F(StatusSm, AResultMayChangeTheStatusThatItComesFrom) {
  start();
  std::function<void(const Korm::Name&)> then;
  OstraTest::Listener<const P4Runtime::TransactionResult&> service{
      batchStatus->resultNotifiees(), [&then](const P4Runtime::TransactionResult& result) {
        if (then) {
          then(Ostra::buildFlowName(result.handle));
        }
      }};
  int left = 0;
  then = [&](const Korm::Name& name) {
    if (left-- > 0 && !hw->flowStatsDel(name)) {
      hw->flowStatsIs(name, FlowStatus::programmed_);
    }
  };
  auto& stats = flow("flow-1", FlowStatus::pending_);
  left = 1;
  stats.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), "1 success; 1 success") << "programmed, and gone";
  EXPECT_EQ(flowReactors(), 0U);
  left = 2;
  flow("flow-1", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "1 success; 1 success; 1 success") << "inserted, gone, inserted again";
  EXPECT_EQ(flowReactors(), 1U);
  left = 2;
  hw->flowStatsIs("flow-1").changeCountIs(1);
  EXPECT_EQ(flowReactors(), 1U);
  heard();
  hw->flowStatsIs("flow-1").changeCountIs(2);
  EXPECT_EQ(heard(), "1 success") << "followed anew";

  then = [this](const Korm::Name&) { cxHwStatusDir->entityDel("p4rt"); };
  hw->flowStatsIs("flow-1").changeCountIs(3);
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr);
  then = nullptr;
  cxHwStatusDir->entityIs("p4rt", hw);
  heard();
  then = [this](const Korm::Name&) { sm = nullptr; };
  flow("flow-2", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "2 success");
  EXPECT_EQ(hw->references(), 2U) << "held here and by the directory";
}

// 20,000 steps of hardware against the table of results.
TEST_F(StatusSm, KeepsUpWithAnyHistory) {
  start();
  std::mt19937 random{20'24};
  std::map<std::uint64_t, FlowStatus> model;  // the status of each flow
  for (int step = 0; step < 20'000; ++step) {
    const std::uint64_t handle = random() % 200;
    const Korm::Name name = Ostra::buildFlowName(handle);
    const auto found = model.find(handle);
    const bool present = found != model.end();
    bool told = true;
    std::string result = "success";  // of a flow that is gone
    if (const auto kind = random() % 3; kind == 0) {
      told = present;
      model.erase(handle);
      hw->flowStatsDel(name);
    } else if (kind == 1 || !present) {
      const auto status = static_cast<FlowStatus>(random() % 16);
      told = !present || found->second != status;
      result = resultOf(status);
      model[handle] = status;
      hw->flowStatsIs(name, status).statusIs(status);
    } else {
      result = resultOf(found->second);
      hw->flowStatsIs(name).changeCountIs(step);
    }
    told = told && !result.empty();
    ASSERT_EQ(heard(), told ? std::to_string(handle) + " " + result : "")
        << "step " << step << ", " << name;
    ASSERT_EQ(flowReactors(), model.size());
  }
}

TEST_F(StatusSm, TracesInItsOwnWords) {
  start();
  OstraTest::TextTrace trace{7};
  flow("flow-7", FlowStatus::programming_);
  statusInfo->dependentHandleToVrfMapIs(7, 5);
  hw->flowStatsDel("flow-7");
  EXPECT_EQ(
      trace.take(),
      (OstraTest::Texts{"5 OstraStatusSm::handleFlowHwStatus Modify/insert status update for flow: "
                        "flow-7 status: 3",
                        "5 OstraStatusSm::handleFlowHwStatusDelete status update for flow: flow-7",
                        "5 handleFlowHwStatus dependentHandle:7 vrfId:5"}));
  groupRow(5, 50);
  hw->groupStatsIs(5, GroupStatus::hardwareFull_);
  hw->groupStatsIs(memberBit | 6, GroupStatus::ready_);
  hw->groupStatsDel(5);
  EXPECT_EQ(trace.take(),
            (OstraTest::Texts{"5 OstraStatusSm::handleGroupHwStatus groupId: 5",
                              "7 group status update for flow: 5 status: 3",
                              "5 OstraStatusSm::handleGroupHwStatus groupId: 4294967302",
                              "7 member not in p4rt table for OF groupId: 4294967302",
                              "5 OstraStatusSm::handleGroupHwStatus groupId: 5",
                              "7  group status deleted for group: 5"}));
  cxHwStatusDir->entityDel("p4rt");
  EXPECT_EQ(trace.take(), (OstraTest::Texts{"5 OstraStatusDirSm::handleStatusDir p4rt",
                                            "5 OstraStatusDirSm delete statusSm"}));
}

}  // namespace
