#include "p4rt/core/Loop.h"
#include "tests/Testing.h"

namespace P4rt {
namespace {

using namespace std::chrono_literals;
using namespace TestSupport;

TEST(LoopTest, RunsTimersInTheirOrderAndAfterStopOnlyWhatIsPosted) {
  Loop loop;
  std::vector<int> seen;
  const auto begun = std::chrono::steady_clock::now();
  loop.after(30ms, [&] {
    EXPECT_GE(std::chrono::steady_clock::now(), begun + 30ms);
    seen.push_back(4);
    loop.stop();
    loop.post([&] {
      seen.push_back(5);
      loop.post([&] { seen.push_back(7); });
    });
    loop.post([&] { seen.push_back(6); });
  });
  loop.after(1h, [&] { seen.push_back(-1); });
  const auto cancelled = loop.after(20ms, [&] { seen.push_back(-1); });
  const auto first = loop.after(0ms, [&] { seen.push_back(1); });
  loop.after(0ms, [&] { seen.push_back(2); });
  loop.after(10ms, [&] {
    seen.push_back(3);
    loop.cancel(cancelled);
    loop.cancel(cancelled);
    loop.cancel(first);
  });
  EXPECT_THAT(seen, IsEmpty());
  loop.run();
  EXPECT_THAT(seen, ElementsAre(1, 2, 3, 4, 5, 6, 7));
}

}  // namespace
}  // namespace P4rt
