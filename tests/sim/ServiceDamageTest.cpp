// Rows that are damaged and shared memory that runs out: the write that meets it fails, the others
// do not.

#include "tests/Tampering.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

class ServiceDamage : public Switch {};

TEST_F(ServiceDamage, ADamagedRowIsReportedUntilItIsWritten) {
  apply({insert({.number = 1}), insert({.number = 2})});
  EXPECT_TRUE(service.rowDamaged(1) && service.rowDamaged(2));
  EXPECT_FALSE(service.rowDamaged(1));
  EXPECT_FALSE(service.storedFlow(1).has_value());
  EXPECT_EQ(service.explain(0, rowOf({.number = 1}))->entryId, 1U);
  EXPECT_THAT(apply({insert({.number = 1}), modify({.number = 2, .vrf = 5})}),
              ElementsAre(HasSubstr("under handle 1"), "modify flow 2 done 0"));
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0"), HasSubstr("row 1")));
  service.stop();
  EXPECT_EQ(service.start().failure, std::nullopt);
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0")));
  apply({modify({.number = 1})});
}

TEST_F(ServiceDamage, FullSharedMemoryRejectsWhatNeedsMoreOfIt) {
  std::vector<Update> batch;
  for (std::uint32_t number = 0; number < 400; ++number) {
    batch.push_back(insert({.number = number, .vrf = 5}));
  }
  std::size_t stored = 0;
  {
    const Limit limit{RLIMIT_FSIZE, 100000};
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
