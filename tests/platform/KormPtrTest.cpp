// Reference counting: plain and atomic counts, the switch between them, and entities that come
// back.

#include "platform/Korm/Entity.h"
#include "platform/Korm/Ptr.h"
#include "tests/Heard.h"

namespace Korm {
namespace {

using namespace TestSupport;

class Thing : public Entity {
 public:
  explicit Thing(int& alive) : alive_{alive} { ++alive_; }
  ~Thing() override { --alive_; }

 private:
  int& alive_;
};
TEST(Ptr, DestroysOnceThoughDestructorsMakePointersToTheObject) {
  struct SelfReferring final : Entity {
    explicit SelfReferring(int& count) : destroyed{count} {}
    ~SelfReferring() override {
      ++destroyed;
      const Ptr<Entity> self{this};
      const Ptr<Entity> another = self;
    }
    int& destroyed;
  };
  int destroyed = 0;
  makePtr<SelfReferring>(destroyed) = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(ZeroReferences, AnObserverThatTakesAReferenceKeepsTheEntityUntilItLetsGo) {
  int alive = 0;
  Ptr<Entity> place;
  Ptr<Entity> entity = makePtr<Thing>(alive);
  Entity& self = *entity;
  const auto borrow = [&self] { const Ptr<Entity> taken{&self}; };
  Listener<> borrower{self.zeroReferencesNotifiees(), borrow};
  Listener<> rescuer{self.zeroReferencesNotifiees(), [&] { place = Ptr<Entity>{&self}; }};
  entity = nullptr;
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(place->references(), 1U);
  std::exchange(place, nullptr) = nullptr;
  EXPECT_EQ(rescuer.take(), 2);
  rescuer.actionIs(borrow);
  place = nullptr;
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(borrower.take(), 3) << "to take and drop a reference is not to be asked again";
  EXPECT_FALSE(rescuer.attached());
}

// The switch is the whole process's, so each of these has a process of its own, which starts
// afresh.
class PtrSwitchDeathTest : public testing::Test {
 protected:
  PtrSwitchDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

void hammerFromThreads() {
  threadSafePtrIs(true);
  threadSafePtrIs(false);
  threadSafePtrIs(true);
  static std::atomic<int> destroyed{0};
  struct Shared final : Entity {
    ~Shared() override { destroyed += payload; }
    int payload = 0;
  };
  constexpr int rounds = 200;
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::thread> threads;
    {
      auto shared = makePtr<Shared>();
      shared->payload = 1;
      for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([mine = shared]() mutable {
          for (int copy = 0; copy < 50; ++copy) {
            const Ptr<Entity> other = mine;
            const Ptr<Entity> third{other};
          }
          mine = nullptr;
        });
      }
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  std::exit(destroyed == rounds ? 0 : 1);
}

TEST_F(PtrSwitchDeathTest, LetsThreadsShareEntities) {
  EXPECT_EXIT(hammerFromThreads(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Korm
