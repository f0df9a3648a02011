// Entities: reference counting, plain and atomic, those that come back, and directories of them.

#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"
#include "platform/Korm/Ptr.h"
#include "tests/Heard.h"

namespace Korm {
namespace {

using namespace TestSupport;

// Makes pointers to itself while it goes.
class Thing final : public Entity {
 public:
  explicit Thing(int& destroyed) : destroyed_{destroyed} {}
  ~Thing() override {
    ++destroyed_;
    const Ptr<Entity> self{this};
    const Ptr<Entity> another = self;
  }

 private:
  int& destroyed_;
};

TEST(Ptr, DestroysOnceThoughDestructorsMakePointersToTheObject) {
  int destroyed = 0;
  makePtr<Thing>(destroyed) = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(ZeroReferences, AnObserverThatTakesAReferenceKeepsTheEntityUntilItLetsGo) {
  int destroyed = 0;
  Ptr<Entity> place;
  Ptr<Entity> entity = makePtr<Thing>(destroyed);
  Entity& self = *entity;
  const auto borrow = [&self] { const Ptr<Entity> taken{&self}; };
  Listener<> borrower{self.zeroReferencesNotifiees(), borrow};
  Listener<> rescuer{self.zeroReferencesNotifiees(), [&] { place = Ptr<Entity>{&self}; }};
  entity = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(place->references(), 1U);
  std::exchange(place, nullptr) = nullptr;
  EXPECT_EQ(rescuer.take(), 2);
  rescuer.actionIs(borrow);
  place = nullptr;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(borrower.take(), 3) << "to take and drop a reference is not to be asked again";
  EXPECT_FALSE(rescuer.attached());
}

// The switch is the whole process's and comes first, so that this has a process of its own.
void hammerFromThreads() {
  threadSafePtrIs(true);
  threadSafePtrIs(false);
  threadSafePtrIs(true);
  static std::atomic<int> alive{0};
  struct Shared final : Entity {
    Shared() { ++alive; }
    ~Shared() override { --alive; }
  };
  for (int round = 0; round < 200; ++round) {
    std::vector<std::jthread> threads;
    for (auto shared = makePtr<Shared>(); threads.size() < 4;) {
      threads.emplace_back([mine = shared] {
        for (int copy = 0; copy < 50; ++copy) {
          const Ptr<Entity> other = mine;
        }
      });
    }
  }
  std::exit(alive);
}

TEST(PtrSwitchDeathTest, LetsThreadsShareEntities) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(hammerFromThreads(), testing::ExitedWithCode(0), "");
}

// Directories of named entities.

class Lamp final : public NamedEntity {
 public:
  using NamedEntity::NamedEntity;
};

class DirTest : public testing::Test {
 protected:
  Texts take() { return std::exchange(told_, {}); }

  Ptr<Dir> dir_ = makePtr<Dir>("lamps");
  Texts told_;
  Listener<const Name&> teller_{dir_->notifiees(), [this](const Name& name) {
                                  told_.push_back(name + (dir_->entityPtr(name) ? "+" : "-"));
                                }};
};

TEST_F(DirTest, TellsTheNameOfWhatIsAddedReplacedAndRemoved) {
  const auto lamp = makePtr<Lamp>("a");
  dir_->entityIs("a", lamp);
  dir_->entityIs("a", lamp);
  EXPECT_EQ(take(), Texts{"a+"}) << "the same again is no change";
  dir_->entityIs("a", makePtr<Dir>("a"));
  EXPECT_EQ(take(), Texts{"a+"});
  EXPECT_EQ(dir_->entityPtr<Lamp>("a"), nullptr) << "of another type";
  EXPECT_NE(dir_->entityDel("a"), nullptr);
  EXPECT_EQ(dir_->entityDel("a"), nullptr);
  EXPECT_EQ(take(), Texts{"a-"});
  dir_->entityIs("a", lamp);
  dir_->entityIs("a", nullptr);
  dir_->entityIs("b", nullptr);
  EXPECT_EQ(take(), (Texts{"a+", "a-"}));
  EXPECT_TRUE(dir_->entities().empty());
  EXPECT_EQ(lamp->references(), 1U);
}

TEST_F(DirTest, MayBeChangedByItsReactors) {
  dir_->entityIs("a", makePtr<Lamp>("a"));
  take();
  // The name told may be the key of the very entity that goes.
  const Name& name = dir_->entities().begin()->first;
  Listener<const Name&> remover{dir_->notifiees()};
  remover.nextIs([this] { dir_->entityDel("a"); });
  dir_->entityIs(name, makePtr<Lamp>("a"));
  EXPECT_EQ(take(), (Texts{"a+", "a-"}));
}

TEST_F(DirTest, HasAPathFromItsRootForAsLongAsItIsPlaced) {
  const auto below = makePtr<Dir>("below");
  dir_->entityIs("below", below);
  auto root = makePtr<Dir>("root");
  root->entityIs("lamps", dir_);
  EXPECT_EQ(below->path(), "root/lamps/below");
  root->entityDel("lamps");
  EXPECT_EQ(below->path(), "lamps/below");
  root->entityIs("below", below);
  dir_->entityDel("below");
  EXPECT_EQ(below->path(), "root/below") << "it has moved to another place";
  root = nullptr;
  EXPECT_EQ(below->path(), "below");
  dir_->entityIs("below", below);
  dir_->entityIs("below", makePtr<Dir>("below"));
  EXPECT_EQ(below->path(), "below");
}

}  // namespace
}  // namespace Korm
