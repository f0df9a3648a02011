// From a controller's write to its result, through the whole library as an integrator creates it. The
// hardware is the test: it reads what Corvex wants and publishes what it likes, when it likes.
#include <array>
#include <memory>
#include <string>

#include "ContextFixture.h"

namespace OstraTest {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;

class EndToEnd : public ContextFixture {
 protected:
  EndToEnd() {
    makeComplete();
    hw = publishHwStatus();
    table = tables->ostraConfig(FlowTableIndex{3});
  }

  // The hardware's answer for a flow, and the results that the service hears then.
  std::string answer(std::uint64_t handle, FlowStatus status) {
    hw->flowStatsIs("flow-" + std::to_string(handle), status).statusIs(status);
    return results.take();
  }
  std::string withdraw(std::uint64_t handle) {
    EXPECT_EQ(cxFlow(handle), nullptr);
    hw->flowStatsDel("flow-" + std::to_string(handle));
    return results.take();
  }
  // Code and message of an open write.
  [[nodiscard]] std::string outcome(std::uint64_t handle) const {
    const auto entry = batchStatus->batchStatusEntry(handle);
    return P4Runtime::errorCodeText(entry->errorCode()) + ": " + entry->message();
  }

  Korm::Ptr<HwStatus> hw;
};

TEST_F(EndToEnd, AWriteIsAnsweredWhenTheHardwareIsDone) {
  EXPECT_EQ(write(flow(1, plainKey(1))), "");
  ASSERT_NE(cxFlow(1), nullptr);
  EXPECT_EQ(answer(1, FlowStatus::programming_), "");
  EXPECT_EQ(answer(1, FlowStatus::programmed_), "1 success");
  EXPECT_EQ(write(flow(1, plainKey(1))), "");
  EXPECT_EQ(answer(1, FlowStatus::hardwareFull_), "1 hardwareResourceExhausted");
  EXPECT_EQ(remove(flow(1, plainKey(1))), "");
  EXPECT_EQ(withdraw(1), "1 success");
}

TEST_F(EndToEnd, AVrfsFirstAndLastUserAnswerThroughTheirRoot) {
  write(flowInVrf(1, 1, 5));
  write(flowInVrf(2, 2, 5));
  EXPECT_TRUE(isDependent(1));
  EXPECT_EQ(answer(2, FlowStatus::programmed_), "2 success");
  EXPECT_EQ(answer(1, FlowStatus::matchNotSupported_), "1 matchNotSupported");
  EXPECT_FALSE(isDependent(1)) << "the root has had its result";
  EXPECT_EQ(outcome(1), "matchNotSupported: ");
  EXPECT_EQ(answer(1, FlowStatus::programmed_), "1 success");

  batchStatus->batchStatusEntryDelAll();
  remove(flowInVrf(1, 1, 5));
  remove(flowInVrf(2, 2, 5));
  EXPECT_TRUE(isDependent(2));
  EXPECT_EQ(withdraw(2), "2 success");
  EXPECT_FALSE(isDependent(2));
  EXPECT_EQ(withdraw(1), "1 success");
}

TEST_F(EndToEnd, AGroupThatTheHardwareRefusesFailsItsWrite) {
  constexpr OpenFlowTable::GroupId memberGroup = (OpenFlowTable::GroupId{1} << 32U) | 3;
  writeMember(3, P4Runtime::EntryHandle{30});
  ASSERT_NE(cxHwConfig->groupEntry(memberGroup), nullptr) << outcome(30);
  const auto row = std::make_unique<P4RuntimeRouting::EcmpMemberList>();
  row->entryHandle = 40;
  row->groupId = 4;
  row->membersIs(std::array<P4Runtime::MemberOrGroupId, 1>{3}, std::array<std::uint32_t, 1>{1});
  batchStatus->batchStatusEntryIs(40);
  groupTable->entryIs(*row);
  ASSERT_NE(cxHwConfig->groupEntry(4), nullptr) << outcome(40);
  hw->groupStatsIs(4, GroupStatus::hardwareFull_);
  EXPECT_EQ(outcome(40),
            "hardwareResourceExhausted: Hardware resource exhausted for profile group 4");
  hw->groupStatsIs(memberGroup, GroupStatus::ready_).statusIs(GroupStatus::actionNotSupported_);
  EXPECT_EQ(outcome(30), "actionNotSupported: Action not supported for profile member 3");
}

TEST_F(EndToEnd, DirectCountersAreReadAfreshFromEveryUnitThatHasTheFlow) {
  const auto unit = [this](const char* name) {
    auto status = Korm::makePtr<HwStatus>(name);
    flowCounterDir->entityIs(name, status);
    return status;
  };
  const auto counted = [this](std::uint64_t handle) {
    return counters->counterImplMap(0)->getCounters(handle);
  };
  using P4Runtime::P4CounterData;
  EXPECT_EQ(counted(7), P4CounterData{});
  unit("unit-0")->flowStatsIs("flow-7-p4rt").countersIs(10, 1000);
  const auto second = unit("unit-1");
  second->flowStatsIs("flow-7-p4rt").countersIs(5, 500);
  for (const char* const other : {"flow-7", "flow-7-other", "flow-70-p4rt"}) {
    second->flowStatsIs(other).countersIs(1, 1);
  }
  flowCounterDir->entityIs("other", Korm::makePtr<Korm::Dir>("other"));
  EXPECT_EQ(counted(7), (P4CounterData{0, 15, 1500}));
  EXPECT_EQ(counted(9), P4CounterData{});
  second->flowStatsIs("flow-7-p4rt").countersIs(6, 600);
  flowCounterDir->entityDel("unit-0");
  EXPECT_EQ(counted(7), (P4CounterData{0, 6, 600}));
}

TEST_F(EndToEnd, NothingIsReportedOnceTheLibraryIsGone) {
  write(flow(1, plainKey(1)));
  answer(1, FlowStatus::pending_);
  context = nullptr;
  EXPECT_EQ(answer(1, FlowStatus::programmed_), "");
  cxHwStatusDir->entityDel("p4rt");
  EXPECT_EQ(results.take(), "");
  EXPECT_EQ(hw->references(), 1U);
}

}  // namespace
}  // namespace OstraTest
