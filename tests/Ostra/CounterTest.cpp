#include <gtest/gtest.h>

#include "Ostra/OstraCounter.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace {

using OpenFlowTable::HwStatus;
using P4Runtime::P4CounterData;

class DirectCounter : public testing::Test {
 protected:
  void count(const char* unit, const char* flow, std::uint64_t packets, std::uint64_t bytes) {
    auto status = dir_->entityPtr<HwStatus>(unit);
    if (!status) {
      status = Korm::makePtr<HwStatus>(unit);
      dir_->entityIs(unit, status);
    }
    status->flowStatsIs(flow).countersIs(packets, bytes);
  }

  const Korm::Ptr<Korm::Dir> dir_ = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  const Ostra::FlowDirectCounterImpl counter_{dir_};
};

TEST_F(DirectCounter, SumsOverTheHardwareUnitsThatHaveTheFlow) {
  EXPECT_EQ(counter_.getCounters(7), P4CounterData{}) << "an empty directory";
  count("unit-0", "flow-7-p4rt", 10, 1000);
  count("unit-1", "flow-7-p4rt", 5, 500);
  count("unit-1", "flow-70-p4rt", 1, 1);
  count("unit-2", "flow-8-p4rt", 2, 2);
  dir_->entityIs("other", Korm::makePtr<Korm::Dir>("other"));
  EXPECT_EQ(counter_.getCounters(7), (P4CounterData{0, 15, 1500}));
  EXPECT_EQ(counter_.getCounters(9), P4CounterData{});

  count("unit-1", "flow-7-p4rt", 6, 600);
  dir_->entityDel("unit-0");
  EXPECT_EQ(counter_.getCounters(7), (P4CounterData{0, 6, 600})) << "read afresh each time";
}

TEST_F(DirectCounter, CountsOnlyTheFlowOfItsOwnName) {
  count("unit-0", "flow-7", 1, 1);
  count("unit-0", "flow-7-other", 2, 2);
  count("unit-0", "flow-18446744073709551615-p4rt", 3, 4);
  EXPECT_EQ(counter_.getCounters(7), P4CounterData{});
  EXPECT_EQ(counter_.getCounters(18446744073709551615U), (P4CounterData{0, 3, 4}));
}

}  // namespace
