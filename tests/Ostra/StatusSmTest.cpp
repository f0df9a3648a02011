#include <array>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatusSm.h"
#include "tests/Ostra/FlowFixture.h"
#include "tests/Ostra/StatusTestSupport.h"

namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;
using Ostra::OstraStatusSm;
using P4Runtime::ErrorCode;
using StatusTest::AllHeard;
using StatusTest::Heard;

constexpr GroupId memberBit = GroupId{1} << 32U;

// The flow statuses with the error code that each reports, -1 for none.
constexpr std::array<std::pair<std::uint32_t, int>, 19> flowRows{{
    {0, -1},  {1, 0},   {2, 0},    {3, -1},   {4, -1},          {5, 7},  {6, 6},
    {7, 1},   {8, -1},  {9, 19},   {10, 19},  {11, 19},         {12, 6}, {13, -1},
    {14, 19}, {15, 19}, {255, 19}, {256, 19}, {0xFFFFFFFF, 19},
}};

// A directory with a "p4rt" hardware status, and a state machine over it.
class StatusSm : public testing::Test {
 protected:
  StatusSm() { dir_->entityIs("p4rt", hw_); }

  void start() { sm_ = Ostra::ostraStatusDirSmFactory(dir_, batch_, info_, groups_, members_); }
  // What the last step made the service hear.
  AllHeard heard() { return results_.take(); }
  [[nodiscard]] std::size_t flowReactors() const { return sm_->p4RtCxStatusSm()->flowReactors(); }

  OpenFlowTable::FlowStats& flow(const char* name, std::uint32_t status) {
    return hw_->flowStatsIs(name, FlowStatus{status});
  }
  // A group's or member's row, with its write under way under that handle.
  void groupRow(std::uint32_t id, std::uint64_t handle) {
    static P4RuntimeRouting::EcmpMemberList row;
    row.groupId = id;
    row.entryHandle = handle;
    groups_->entryIs(row);
    batch_->batchStatusEntryIs(handle);
  }
  void memberRow(std::uint32_t id, std::uint64_t handle) {
    members_->entryIs({.entryHandle = handle, .memberId = id});
    batch_->batchStatusEntryIs(handle);
  }
  // Code and message of an open write.
  [[nodiscard]] std::pair<std::uint32_t, std::string> outcome(std::uint64_t handle) const {
    const auto entry = batch_->batchStatusEntry(handle);
    return {static_cast<std::uint32_t>(entry->errorCode()), entry->message()};
  }
  using Outcome = std::pair<std::uint32_t, std::string>;

  const Korm::Ptr<Korm::Dir> dir_ = Korm::makePtr<Korm::Dir>("dyninputstatus");
  Korm::Ptr<HwStatus> hw_ = Korm::makePtr<HwStatus>("p4rt");
  const Korm::Ptr<P4Runtime::BatchStatus> batch_ = Korm::makePtr<P4Runtime::BatchStatus>();
  const Korm::Ptr<Ostra::OstraStatusInfo> info_ = Ostra::ostraStatusInfoFactory();
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> groups_ =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>("group");
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> members_ =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>("member");
  StatusTest::Results results_{*batch_};
  Korm::Ptr<Ostra::OstraStatusDirSm> sm_;
};

TEST_F(StatusSm, StartsWithWhatTheHardwareSaysAlready) {
  flow("flow-1", 1);
  flow("flow-2", 3);
  auto& third = flow("flow-3", 6);
  groupRow(5, 50);
  hw_->groupStatsIs(5, GroupStatus::hardwareFull_);
  start();
  EXPECT_TRUE(sm_->initialized() && sm_->p4RtCxStatusSm()->initialized());
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}, {3, 6, "", false}}));
  EXPECT_EQ(outcome(50), (Outcome{1, "Hardware resource exhausted for profile group 5"}));
  EXPECT_EQ(flowReactors(), 3U);
  EXPECT_EQ(sm_->p4RtCxStatusSm()->groupReactors(), 1U);
  third.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), (AllHeard{{3, 0, "", false}}));
}

TEST_F(StatusSm, ANameThatIsNoFlowsIsHandleZero) {
  start();
  flow("stray", 1);
  flow("flow-42xyz", 9);
  hw_->flowStatsDel("stray");
  EXPECT_EQ(heard(), (AllHeard{{0, 0, "", false}, {42, 19, "", false}, {0, 0, "", false}}));
}

TEST_F(StatusSm, ADependentResultGoesToTheRootOnce) {
  start();
  batch_->batchStatusEntryIs(7);
  const auto root = batch_->aggregatorStatus().rootStatusEntry(7);
  root->dependentEntryHandleIs(7, true);
  info_->dependentHandleToVrfMapIs(7, 5);

  auto& stats = flow("flow-7", 4);
  EXPECT_EQ(info_->dependentHandleToVrfMap(7), 5U) << "not final, still waited for";
  stats.statusIs(FlowStatus::hardwareFull_);
  EXPECT_EQ(heard(), (AllHeard{{7, 1, "", true}}));
  EXPECT_EQ(root->dependentEntryHandles().size(), 0U);
  EXPECT_EQ(info_->dependentHandleToVrfMap(7), std::nullopt);
  stats.changeCountIs(1);
  EXPECT_EQ(heard(), (AllHeard{{7, 1, "", false}}));

  info_->dependentHandleToVrfMapIs(8, 5);
  auto& rootless = flow("flow-8", 1);
  EXPECT_EQ(heard(), AllHeard{}) << "no root to tell";
  EXPECT_EQ(info_->dependentHandleToVrfMap(8), std::nullopt);
  rootless.changeCountIs(1);
  EXPECT_EQ(heard(), (AllHeard{{8, 0, "", false}}));
}

TEST_F(StatusSm, AGroupsFailureIsTheResultOfItsWrite) {
  groupRow(5, 50);
  memberRow(5, 60);
  start();
  const auto expectBoth = [this](std::uint32_t status, std::uint32_t code,
                                 const std::string& text) {
    for (const auto& [id, handle, kind] :
         {std::tuple{GroupId{5}, 50U, "group 5"}, std::tuple{memberBit | 5, 60U, "member 5"}}) {
      batch_->batchStatusEntryIs(handle);
      hw_->groupStatsIs(id, GroupStatus::ready_).statusIs(GroupStatus{status});
      EXPECT_EQ(outcome(handle), (Outcome{code, text.empty() ? "" : text + kind})) << status;
      batch_->batchStatusEntryIs(handle)->messageIs("before");
      hw_->groupStatsIs(id).changeCountIs(1);
      EXPECT_EQ(outcome(handle), (Outcome{code, text.empty() ? "before" : text + kind})) << status;
      hw_->groupStatsDel(id);
    }
  };
  expectBoth(2, 6, "Action not supported for profile ");
  expectBoth(3, 1, "Hardware resource exhausted for profile ");
  expectBoth(4, 19, "Unknown error to program profile ");
  for (const std::uint32_t status : {0U, 1U, 5U, 6U, 0xFFFFFFFFU}) {
    expectBoth(status, 0, "");
  }
  EXPECT_EQ(heard(), AllHeard{}) << "groups have no result of their own";
}

TEST_F(StatusSm, AGroupWithoutARowOrAnOpenWriteIsPassedOver) {
  start();
  groupRow(5, 50);
  memberRow(6, 60);
  hw_->groupStatsIs(6, GroupStatus::hardwareFull_);
  hw_->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);
  EXPECT_EQ(outcome(50), (Outcome{0, ""}));
  EXPECT_EQ(outcome(60), (Outcome{0, ""}));

  auto& stats = hw_->groupStatsIs(5, GroupStatus::ready_);
  batch_->batchStatusEntryDel(50);
  stats.statusIs(GroupStatus::hardwareError_);
  EXPECT_EQ(batch_->entries(), 1U);

  // A failure stands until the write is made again, whatever the group does.
  stats.statusIs(GroupStatus::ready_);
  batch_->batchStatusEntryIs(50);
  stats.statusIs(GroupStatus::hardwareError_);
  stats.statusIs(GroupStatus::ready_);
  hw_->groupStatsDel(5);
  EXPECT_EQ(outcome(50), (Outcome{19, "Unknown error to program profile group 5"}));
  EXPECT_EQ(sm_->p4RtCxStatusSm()->groupReactors(), 2U);
}

TEST_F(StatusSm, ACorruptMemberRowIsReportedAndPassedOver) {
  start();
  memberRow(5, 50);
  std::vector<std::string> reports;
  members_->corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  const_cast<P4RuntimeRouting::NexthopInfo*>(members_->entry(5))->p4PortId ^= 1U;
  hw_->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);
  EXPECT_EQ(reports.size(), 1U);
  EXPECT_EQ(outcome(50), (Outcome{0, ""}));
}

TEST_F(StatusSm, FollowsTheEntityNamedP4rtOnly) {
  dir_->entityDel("p4rt");
  dir_->entityIs("other", hw_);
  start();
  flow("flow-1", 1);
  dir_->entityIs("p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  EXPECT_EQ(sm_->p4RtCxStatusSm(), nullptr) << "of another type";
  dir_->entityIs("p4rt", hw_);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}}));

  const Korm::Ptr<OstraStatusSm> made = sm_->p4RtCxStatusSm();
  dir_->entityIs("third", Korm::makePtr<HwStatus>("third"));
  dir_->entityDel("other");
  sm_->handleStatusDir();
  EXPECT_EQ(sm_->p4RtCxStatusSm(), made) << "the same entity again";
  EXPECT_EQ(heard(), AllHeard{});

  dir_->entityIs("p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  EXPECT_EQ(sm_->p4RtCxStatusSm(), nullptr) << "mistyped, although there was one";
  flow("flow-2", 1);
  EXPECT_EQ(heard(), AllHeard{}) << "also while somebody still holds the state machine";
}

TEST_F(StatusSm, AReplacedEntityRebuildsAndTheOldOneIsSilent) {
  start();
  flow("flow-1", 1);
  const Korm::Ptr<HwStatus> old = std::exchange(hw_, Korm::makePtr<HwStatus>("p4rt"));
  auto& second = flow("flow-2", 5);
  heard();
  dir_->entityIs("p4rt", hw_);
  EXPECT_EQ(heard(), (AllHeard{{2, 7, "", false}}));
  EXPECT_EQ(old->references(), 1U) << "nothing of the library holds it";
  old->flowStatsIs("flow-1").changeCountIs(1);
  old->flowStatsIs("flow-3", FlowStatus::programmed_);
  dir_->entityDel("p4rt");
  second.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), AllHeard{});
  dir_->entityIs("p4rt", hw_);
  EXPECT_EQ(heard(), (AllHeard{{2, 0, "", false}})) << "back, with what it says now";
}

TEST_F(StatusSm, AStateMachineIsKeptForTheVerySameInputsOnly) {
  start();
  const auto made = sm_->p4RtCxStatusSm();
  const auto otherInfo = Ostra::ostraStatusInfoFactory();
  EXPECT_EQ(sm_->p4RtCxStatusSmIs(hw_, batch_, info_, groups_, members_), made);
  EXPECT_NE(sm_->p4RtCxStatusSmIs(hw_, batch_, otherInfo, groups_, members_), made);
  EXPECT_NE(sm_->p4RtCxStatusSmIs(hw_, batch_, otherInfo, groups_, nullptr)->ostraStatusInfo(),
            info_);
  EXPECT_FALSE(made->hasNotificationActive());
  EXPECT_TRUE(sm_->p4RtCxStatusSm()->hasNotificationActive());
}

TEST_F(StatusSm, IsSilentWhenSwitchedOffOrDestroyed) {
  auto& stats = flow("flow-1", 1);
  start();
  heard();
  sm_->hasNotificationActiveIs(false);
  stats.changeCountIs(1);
  flow("flow-2", 1);
  EXPECT_EQ(heard(), AllHeard{});
  sm_->hasNotificationActiveIs(true);
  stats.changeCountIs(2);
  EXPECT_EQ(heard(), (AllHeard{{1, 0, "", false}}));
  sm_ = nullptr;
  stats.changeCountIs(3);
  dir_->entityDel("p4rt");
  hw_->flowStatsDel("flow-1");
  EXPECT_EQ(heard(), AllHeard{});
  EXPECT_EQ(hw_->references(), 1U);
}

TEST_F(StatusSm, WorksWithoutWhatMayBeMissing) {
  flow("flow-1", 1);
  hw_->groupStatsIs(5, GroupStatus::hardwareFull_);
  sm_ = Ostra::ostraStatusDirSmFactory(dir_, nullptr, nullptr, nullptr, nullptr);
  flow("flow-1", 1).statusIs(FlowStatus::hardwareFull_);
  hw_->flowStatsDel("flow-1");
  hw_->groupStatsIs(memberBit | 5, GroupStatus::hardwareFull_);

  info_->dependentHandleToVrfMapIs(2, 5);
  sm_ = Ostra::ostraStatusDirSmFactory(dir_, nullptr, info_, groups_, members_);
  groupRow(6, 60);
  flow("flow-2", 1);
  hw_->groupStatsIs(6, GroupStatus::hardwareFull_);
  EXPECT_EQ(info_->dependentHandleToVrfMap(2), std::nullopt) << "nobody to tell, and done with";
}

// The service, on hearing of a result, may change the very thing that is being reported.
TEST_F(StatusSm, AResultMayChangeTheStatusThatItComesFrom) {
  start();
  int left = 0;
  results_.then = [&](std::uint64_t handle) {
    if (left-- > 0) {
      const Korm::Name name = Ostra::buildFlowName(handle);
      if (!hw_->flowStatsDel(name)) {
        hw_->flowStatsIs(name, FlowStatus::programmed_);
      }
    }
  };
  auto& stats = flow("flow-1", 0);
  left = 1;
  stats.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(heard(), AllHeard(2, Heard{1, 0, "", false})) << "programmed, and gone";
  EXPECT_EQ(flowReactors(), 0U);
  left = 2;
  flow("flow-1", 1);
  EXPECT_EQ(heard(), AllHeard(3, Heard{1, 0, "", false})) << "inserted, gone, inserted again";
  EXPECT_EQ(flowReactors(), 1U);
  left = 2;
  hw_->flowStatsIs("flow-1").changeCountIs(1);
  EXPECT_EQ(flowReactors(), 1U);
  heard();
  hw_->flowStatsIs("flow-1").changeCountIs(2);
  EXPECT_EQ(heard().size(), 1U) << "followed anew";

  results_.then = [this](std::uint64_t) { dir_->entityDel("p4rt"); };
  hw_->flowStatsIs("flow-1").changeCountIs(3);
  EXPECT_EQ(sm_->p4RtCxStatusSm(), nullptr);
  results_.then = nullptr;
  dir_->entityIs("p4rt", hw_);
  heard();
  results_.then = [this](std::uint64_t) { sm_ = nullptr; };
  flow("flow-2", 1);
  EXPECT_EQ(heard(), (AllHeard{{2, 0, "", false}}));
  EXPECT_EQ(hw_->references(), 2U) << "held here and by the directory";
}

// 20,000 steps of hardware against the table of results.
TEST_F(StatusSm, KeepsUpWithAnyHistory) {
  start();
  std::mt19937 random{20'24};
  std::map<std::uint64_t, std::size_t> model;  // the row of flowRows in which a flow is
  for (int step = 0; step < 20'000; ++step) {
    const std::uint64_t handle = random() % 200;
    const Korm::Name name = Ostra::buildFlowName(handle);
    const auto found = model.find(handle);
    const bool present = found != model.end();
    bool told = true;
    int code = 0;  // of a flow that is gone
    if (const auto kind = random() % 3; kind == 0) {
      told = present;
      model.erase(handle);
      hw_->flowStatsDel(name);
    } else if (kind == 1 || !present) {
      const std::size_t row = random() % flowRows.size();
      told = !present || found->second != row;
      code = flowRows[row].second;
      model[handle] = row;
      const FlowStatus status{flowRows[row].first};
      hw_->flowStatsIs(name, status).statusIs(status);
    } else {
      code = flowRows[found->second].second;
      hw_->flowStatsIs(name).changeCountIs(step);
    }
    const AllHeard expected{{handle, static_cast<std::uint32_t>(code), "", false}};
    ASSERT_EQ(heard(), told && code >= 0 ? expected : AllHeard{})
        << "step " << step << ", " << name;
    ASSERT_EQ(flowReactors(), model.size());
  }
}

TEST_F(StatusSm, TracesInItsOwnWords) {
  OstraTest::TextTrace trace{7};
  start();
  flow("flow-7", 3);
  info_->dependentHandleToVrfMapIs(7, 5);
  hw_->flowStatsDel("flow-7");
  groupRow(5, 50);
  hw_->groupStatsIs(5, GroupStatus::hardwareFull_);
  hw_->groupStatsIs(memberBit | 6, GroupStatus::ready_);
  hw_->groupStatsDel(5);
  hw_->groupStatsIs(9, GroupStatus::ready_);
  dir_->entityDel("p4rt");
  EXPECT_EQ(trace.take(),
            (OstraTest::Texts{
                "5 OstraStatusDirSm::handleInitialized",
                "5 OstraStatusDirSm::handleStatusDir",
                "5 OstraStatusDirSm::handleStatusDir p4rt",
                "5 OstraStatusDirSm create statusSm",
                "5 OstraStatusSm::handleInitialized",
                "5 OstraStatusSm::handleFlowHwStatus",
                "5 OstraStatusSm::handleGroupHwStatus",
                "5 OstraStatusSm::handleFlowHwStatus Modify/insert status update for flow: "
                "flow-7 status: 3",
                "5 OstraStatusSm::handleFlowHwStatusDelete status update for flow: flow-7",
                "5 handleFlowHwStatus dependentHandle:7 vrfId:5",
                "5 OstraStatusSm::handleGroupHwStatus groupId: 5",
                "7 group status update for flow: 5 status: 3",
                "5 OstraStatusSm::handleGroupHwStatus groupId: 4294967302",
                "7 member not in p4rt table for OF groupId: 4294967302",
                "5 OstraStatusSm::handleGroupHwStatus groupId: 5",
                "7  group status deleted for group: 5",
                "5 OstraStatusSm::handleGroupHwStatus groupId: 9",
                "7 group not in p4rt table for OF groupId: 9",
                "5 OstraStatusDirSm::handleStatusDir p4rt",
                "5 OstraStatusDirSm delete statusSm",
            }));
}

}  // namespace
