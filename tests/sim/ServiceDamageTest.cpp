// Rows that are damaged and shared memory that runs out: the write that meets it fails, the others
// do not.
#include <sys/resource.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;
using testing::HasSubstr;

class ServiceDamage : public Switch {};

TEST_F(ServiceDamage, ADamagedRowIsReportedAndCanBeModifiedAndDeleted) {
  apply({insert({.number = 1}), insert({.number = 2}), insert({.number = 3}), insert({.number = 4}),
         write(Op::insert_, Member{.id = 7}), write(Op::insert_, Group{.id = 3, .members = {7}})});
  for (const std::uint64_t handle : {1, 2, 3, 5}) {
    EXPECT_TRUE(service.rowDamaged(handle));
  }
  EXPECT_FALSE(service.rowDamaged(1));
  EXPECT_EQ(service.storedFlow(1), std::nullopt);
  EXPECT_EQ(std::uint64_t{service.explain(0, rowOf({.number = 1}))->entryId}, 1U);
  EXPECT_THAT(
      apply({insert({.number = 1}), modify({.number = 2, .vrf = 5}), remove({.number = 3}),
             modify({.number = 4, .vrf = 5}), write(Op::modify_, Member{.id = 7})}),
      ElementsAre(HasSubstr("insert flow rejected"), "modify flow 2 done 0", "delete flow 3 done 0",
                  "modify flow 4 done 0", "modify member 7 as 5 done 0"));
  EXPECT_THAT(service.takeFaults(), testing::SizeIs(4));
  EXPECT_THAT(vrfs(), ElementsAre("5: 2 users, creator 0, deletor 0"));

  // What is damaged still is passed over, and said again.
  service.stop();
  const Sim::Announcement announced = service.start();
  EXPECT_EQ(announced.failure, std::nullopt);
  EXPECT_THAT(announced.results, IsEmpty());
  EXPECT_THAT(flows(), ElementsAre("flow-2", "flow-4"));
  EXPECT_THAT(entries(), ElementsAre(HasSubstr(": 2 "), HasSubstr(": 4 ")));
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0")));
  EXPECT_THAT(apply({modify({.number = 1})}), ElementsAre("modify flow 1 done 0"));
  EXPECT_THAT(flows(), ElementsAre("flow-1", "flow-2", "flow-4"));
}

// Lets no file of this process, its tables' memory among them, grow beyond `bytes`.
class GrowthLimit {
 public:
  explicit GrowthLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{.rlim_cur = bytes, .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~GrowthLimit() { ::setrlimit(RLIMIT_FSIZE, &before_); }
  GrowthLimit(const GrowthLimit&) = delete;
  GrowthLimit& operator=(const GrowthLimit&) = delete;

 private:
  rlimit before_{};
};

TEST_F(ServiceDamage, FullSharedMemoryRejectsWhatNeedsMoreOfIt) {
  std::vector<Update> batch;
  for (std::uint32_t number = 0; number < 400; ++number) {
    batch.push_back(insert({.number = number, .vrf = 5}));
  }
  std::size_t stored = 0;
  {
    const GrowthLimit limit{100000};
    const auto results = service.apply(batch);
    while (stored < results.size() && results[stored].succeeded()) {
      ++stored;
    }
    ASSERT_GT(stored, 10U);
    ASSERT_LT(stored, results.size());
    for (std::size_t at = stored; at < results.size(); ++at) {
      ASSERT_EQ(results[at].state, Sim::State::rejected_) << at;
      EXPECT_THAT(results[at].message, HasSubstr("grow shared memory"));
      EXPECT_EQ(results[at].handle, 0U);
    }
    // What needs no more goes on.
    EXPECT_THAT(apply({modify({.number = 0}), remove({.number = 1})}),
                ElementsAre("modify flow 1 done 0", "delete flow 2 done 0"));
    service.verify();
  }
  EXPECT_THAT(vrfs(),
              ElementsAre("5: " + std::to_string(stored - 2) + " users, creator 0, deletor 0"));
  for (const Sim::Result& result : service.apply(std::span{batch}.subspan(stored))) {
    EXPECT_TRUE(result.succeeded());
  }
  EXPECT_EQ(flows().size(), batch.size() - 1);
}

}  // namespace
