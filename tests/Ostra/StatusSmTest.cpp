#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatusSm.h"
#include "ServiceFixture.h"

namespace OstraTest {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::HwStatus;
using Ostra::OstraStatusSm;
using Service = Listener<const P4Runtime::TransactionResult&>;

// A directory with a "p4rt" hardware status, and a state machine over it.
class StatusSm : public ServiceFixture {
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
  // A group's or member's row, with its write under way.
  void openGroup(Id id) {
    writeGroup(id, {});
    batchStatus->batchStatusEntryIs(groupHandle(id));
  }
  void openMember(Id id) {
    writeMember({.id = id});
    batchStatus->batchStatusEntryIs(memberHandle(id));
  }

 public:
  Korm::Ptr<HwStatus> hw = publishHwStatus();
  Korm::Ptr<Ostra::OstraStatusDirSm> sm;
};

TEST_F(StatusSm, ADependentResultGoesToTheRootOnce) {
  start();
  batchStatus->batchStatusEntryIs(7);
  const auto root = batchStatus->aggregatorStatus().rootStatusEntry(7);
  root->dependentEntryHandleIs(7, true);
  statusInfo->dependentHandleToVrfMapIs(7, 5);

  auto& stats = flow("flow-7", FlowStatus::waitingForGroup_);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(7), 5U) << "not final, still waited for";
  Service service{
      batchStatus->resultNotifiees(), [this](const P4Runtime::TransactionResult& result) {
        EXPECT_EQ(statusInfo->dependentHandleToVrfMap(7), result.dependent ? 5U : 0xFFFFFF)
            << "struck off when it has been reported";
      }};
  stats.statusIs(FlowStatus::hardwareFull_);
  EXPECT_EQ(heard(), "dependent 7 hardwareResourceExhausted");
  EXPECT_EQ(root->dependentEntryHandles().size(), 0U);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(7), Vrf::VrfIdMap::none);
  stats.changeCountIs(1);
  EXPECT_EQ(heard(), "7 hardwareResourceExhausted");
}

// What each status means is in the model of the whole switch (tests/soak).
TEST_F(StatusSm, AGroupWithAnyBitInTheUpperHalfOfItsIdIsAMember) {
  openMember(5);
  start();
  for (const GroupId id : {memberBase | 5, 2 * memberBase | 5}) {
    batchStatus->batchStatusEntryIs(memberHandle(5));
    hw->groupStatsIs(id, GroupStatus::hardwareFull_);
    EXPECT_EQ(outcome(memberHandle(5)),
              "hardwareResourceExhausted: Hardware resource exhausted for profile member 5");
  }
  EXPECT_EQ(heard(), "") << "members have no result of their own";
}

TEST_F(StatusSm, FollowsTheEntityNamedP4rtOnly) {
  start();
  const Korm::Ptr<OstraStatusSm> made = sm->p4RtCxStatusSm();
  cxHwStatusDir->entityIs("other", Korm::makePtr<HwStatus>("other"));
  sm->handleStatusDir();
  EXPECT_EQ(sm->p4RtCxStatusSm(), made) << "the same entity again";
  cxHwStatusDir->entityIs(Ostra::p4rtName, Korm::makePtr<Korm::Dir>(Ostra::p4rtName));
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr) << "of another type";
  flow("flow-2", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "") << "also while somebody still holds the state machine";
}

TEST_F(StatusSm, WorksWithoutWhatMayBeMissing) {
  sm = Ostra::ostraStatusDirSmFactory(cxHwStatusDir, nullptr, nullptr, nullptr, nullptr);
  flow("flow-1", FlowStatus::programmed_).statusIs(FlowStatus::hardwareFull_);
  hw->flowStatsDel("flow-1");
  hw->groupStatsIs(memberBase | 5, GroupStatus::hardwareFull_);
  statusInfo->dependentHandleToVrfMapIs(2, 5);
  sm = Ostra::ostraStatusDirSmFactory(cxHwStatusDir, nullptr, statusInfo, groups, members);
  openGroup(6);
  flow("flow-2", FlowStatus::programmed_);
  hw->groupStatsIs(6, GroupStatus::hardwareFull_);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap(2), Vrf::VrfIdMap::none)
      << "nobody to tell, and done with";
}

// The service, on hearing of a result, may change the very thing that is being reported.
TEST_F(StatusSm, AResultMayChangeTheStatusThatItComesFrom) {
  start();
  int left = 0;
  Service service{batchStatus->resultNotifiees(), [&](const P4Runtime::TransactionResult&) {
                    if (left-- > 0 && !hw->flowStatsDel("flow-1")) {
                      flow("flow-1", FlowStatus::programmed_);
                    }
                  }};
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

  service.nextIs([this] { cxHwStatusDir->entityDel(Ostra::p4rtName); });
  hw->flowStatsIs("flow-1").changeCountIs(3);
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr);
  cxHwStatusDir->entityIs(Ostra::p4rtName, hw);
  heard();
  service.nextIs([this] { sm = nullptr; });
  flow("flow-2", FlowStatus::programmed_);
  EXPECT_EQ(heard(), "2 success");
  EXPECT_EQ(hw->references(), 2U) << "held here and by the directory";
}

TEST_F(StatusSm, AChangeMadeDuringTheFirstReportsIsReportedToo) {
  auto& first = flow("flow-1", FlowStatus::programmed_);
  flow("flow-2", FlowStatus::programmed_);
  flow("flow-3", FlowStatus::pending_);
  Service service{batchStatus->resultNotifiees(), [&](const P4Runtime::TransactionResult& result) {
                    if (result.handle == 2) {
                      first.statusIs(FlowStatus::hardwareFull_);
                      hw->flowStatsDel("flow-3");
                    }
                  }};
  start();
  EXPECT_EQ(heard(), "1 success; 2 success; 1 hardwareResourceExhausted; 3 success");
  EXPECT_EQ(flowReactors(), 2U);
}

TEST_F(StatusSm, FollowsWhatIsThereWhenItIsSwitchedOnAgain) {
  for (const char* const name : {"flow-1", "flow-2", "flow-3"}) {
    flow(name, FlowStatus::programmed_);
  }
  for (const GroupId id : {4U, 5U}) {
    openGroup(static_cast<Id>(id));
    hw->groupStatsIs(id);
  }
  start();
  sm->hasNotificationActiveIs(false);
  hw->flowStatsDel("flow-1");
  hw->flowStatsDel("flow-2");
  flow("flow-2", FlowStatus::programmed_);  // where another was
  flow("flow-4", FlowStatus::programmed_);
  hw->groupStatsDel(4);
  hw->groupStatsIs(6);
  heard();
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(heard(), "") << "what it missed is not told again";
  EXPECT_EQ(flowReactors(), 3U);
  EXPECT_EQ(sm->p4RtCxStatusSm()->groupStats().size(), 2U);
  for (const char* const name : {"flow-2", "flow-3", "flow-4"}) {
    hw->flowStats(name)->changeCountIs(1);
  }
  EXPECT_EQ(heard(), "2 success; 3 success; 4 success");
  hw->groupStats(5)->statusIs(GroupStatus::hardwareError_);
  EXPECT_EQ(outcome(groupHandle(5)), "hardwareError: Unknown error to program profile group 5");
}

// The service, on hearing the reports of a new state machine, replaces or removes what they come
// from.
TEST_F(StatusSm, SettlesOnTheEntityThatIsInTheDirectory) {
  const auto second = Korm::makePtr<HwStatus>(Ostra::p4rtName);
  second->flowStatsIs("flow-2", FlowStatus::programmed_);
  Service service{batchStatus->resultNotifiees()};
  flow("flow-1", FlowStatus::programmed_);
  service.nextIs([&] { cxHwStatusDir->entityIs(Ostra::p4rtName, second); });
  start();
  ASSERT_NE(sm->p4RtCxStatusSm(), nullptr);
  EXPECT_EQ(sm->p4RtCxStatusSm()->inputs().cxHwStatus, second) << "replaced during the start";
  EXPECT_EQ(heard(), "1 success; 2 success");

  service.nextIs([&] {
    EXPECT_EQ(sm->p4RtCxStatusSm()->inputs().cxHwStatus, second) << "the old one stays meanwhile";
    EXPECT_TRUE(sm->p4RtCxStatusSm()->hasNotificationActive());
    cxHwStatusDir->entityIs(Ostra::p4rtName, second);
  });
  cxHwStatusDir->entityIs(Ostra::p4rtName, hw);
  EXPECT_EQ(sm->p4RtCxStatusSm()->inputs().cxHwStatus, second) << "put back";
  EXPECT_EQ(heard(), "1 success; 2 success") << "each is reported once";

  service.nextIs([&] { cxHwStatusDir->entityDel(Ostra::p4rtName); });
  cxHwStatusDir->entityIs(Ostra::p4rtName, hw);
  EXPECT_EQ(sm->p4RtCxStatusSm(), nullptr) << "removed";
  EXPECT_EQ(hw->references(), 1U);
  service.nextIs([&] { sm = nullptr; });
  cxHwStatusDir->entityIs(Ostra::p4rtName, hw);
  EXPECT_EQ(hw->references(), 2U) << "dropped: held here and by the directory";
}

TEST_F(StatusSm, SilencesItsStateMachineWhenItIsDestroyed) {
  auto& stats = flow("flow-1", FlowStatus::programmed_);
  start();
  const Korm::Ptr<OstraStatusSm> held = sm->p4RtCxStatusSm();
  heard();
  sm = nullptr;
  stats.changeCountIs(1);
  flow("flow-2", FlowStatus::programmed_);
  cxHwStatusDir->entityDel(Ostra::p4rtName);
  EXPECT_EQ(heard(), "");
  EXPECT_FALSE(held->hasNotificationActive());
}

}  // namespace
}  // namespace OstraTest
