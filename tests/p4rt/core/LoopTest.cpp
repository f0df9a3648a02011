#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "p4rt/core/Loop.h"

namespace P4rt {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(LoopTest, RunsWhatManyThreadsPostInEachOnesOrderAndNothingOfItTwice) {
  constexpr int threads = 4;
  constexpr int each = 5000;
  Loop loop;
  std::vector<std::vector<int>> seen(threads);
  std::atomic<int> running = threads;
  std::vector<std::thread> posters;
  for (std::vector<int>& own : seen) {
    posters.emplace_back([&] {
      for (int number = 0; number < each; ++number) {
        loop.post([&own, number] { own.push_back(number); });
      }
      if (--running == 0) {
        loop.stop();
      }
    });
  }
  loop.run();
  for (std::thread& poster : posters) {
    poster.join();
  }
  for (const auto& numbers : seen) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(each));
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  }
}

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
      loop.post([&] { seen.push_back(6); });
    });
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
  EXPECT_THAT(seen, ElementsAre(1, 2, 3, 4, 5, 6));
}

}  // namespace
}  // namespace P4rt
