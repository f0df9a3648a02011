// Directories of named entities.
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Korm/Dir.h"

namespace Korm {
namespace {

class Lamp final : public NamedEntity {
 public:
  using NamedEntity::NamedEntity;
};

class DirTest : public testing::Test, protected Notifiee<const Name&> {
 protected:
  DirTest() { dir_->notifiees().attach(*this); }
  void onAttribute(const Name& name) override {
    told_.push_back(name + (dir_->entityPtr(name) ? "+" : "-"));
    if (const auto action = std::exchange(action_, nullptr)) {
      action();
    }
  }
  std::vector<std::string> take() { return std::exchange(told_, {}); }
  using Texts = std::vector<std::string>;

  Ptr<Dir> dir_ = makePtr<Dir>("lamps");
  std::function<void()> action_;
  Texts told_;
};

TEST_F(DirTest, TellsTheNameOfWhatIsAddedReplacedAndRemoved) {
  const auto lamp = makePtr<Lamp>("a");
  dir_->entityIs("a", lamp);
  EXPECT_EQ(take(), Texts{"a+"});
  dir_->entityIs("a", lamp);
  EXPECT_EQ(take(), Texts{});
  dir_->entityIs("a", makePtr<Lamp>("a"));
  EXPECT_EQ(take(), Texts{"a+"});
  EXPECT_NE(dir_->entityPtr("a"), lamp);
  EXPECT_NE(dir_->entityDel("a"), nullptr);
  EXPECT_EQ(take(), Texts{"a-"});
  EXPECT_EQ(dir_->entityDel("a"), nullptr);
  EXPECT_EQ(take(), Texts{});
  dir_->entityIs("a", lamp);
  dir_->entityIs("a", nullptr);
  EXPECT_EQ(take(), (Texts{"a+", "a-"}));
  dir_->entityIs("b", nullptr);
  EXPECT_EQ(take(), Texts{});
  EXPECT_TRUE(dir_->entities().empty());
  EXPECT_EQ(lamp->references(), 1U);
}

TEST_F(DirTest, FindsByNameAndTypeAndHasItsNamesInOrder) {
  dir_->entityIs("b", makePtr<Lamp>("b"));
  dir_->entityIs("a", makePtr<Dir>("a"));
  EXPECT_NE(dir_->entityPtr<Lamp>("b"), nullptr);
  EXPECT_NE(dir_->entityPtr<const NamedEntity>("b"), nullptr);
  EXPECT_EQ(dir_->entityPtr<Dir>("b"), nullptr);
  EXPECT_EQ(dir_->entityPtr<Lamp>("c"), nullptr);
  std::string names;
  for (const auto& [name, entity] : dir_->entities()) {
    names += name;
  }
  EXPECT_EQ(names, "ab");
}

TEST_F(DirTest, HoldsWhatItReplacesOrRemovesUntilAllHaveBeenTold) {
  struct Watched final : Entity {
    explicit Watched(bool& flag) : alive{flag} { alive = true; }
    ~Watched() override { alive = false; }
    bool& alive;
  };
  bool alive = false;
  dir_->entityIs("a", makePtr<Watched>(alive));
  action_ = [&] { EXPECT_TRUE(alive); };
  dir_->entityIs("a", makePtr<Lamp>("a"));
  EXPECT_FALSE(alive);
  dir_->entityIs("a", makePtr<Watched>(alive));
  action_ = [&] { EXPECT_TRUE(alive); };
  dir_->entityDel("a");
  EXPECT_FALSE(alive);
}

TEST_F(DirTest, MayBeChangedAndLeftByItsReactors) {
  dir_->entityIs("b", makePtr<Lamp>("b"));
  told_.clear();
  action_ = [this] { dir_->entityDel("b"); };
  dir_->entityIs("a", makePtr<Lamp>("a"));
  EXPECT_EQ(take(), (Texts{"a+", "b-"}));
  action_ = [this] { dir_->entityIs("a", makePtr<Lamp>("a")); };
  dir_->entityDel("a");
  EXPECT_EQ(take(), (Texts{"a-", "a+"}));
  // The name told may be the key of the very entity that goes.
  const Name& name = dir_->entities().begin()->first;
  action_ = [this] { dir_->entityDel("a"); };
  dir_->entityIs(name, makePtr<Lamp>("a"));
  EXPECT_EQ(take(), (Texts{"a+", "a-"}));
  action_ = [this] { detach(); };
  dir_->entityIs("c", makePtr<Lamp>("c"));
  dir_->entityIs("d", makePtr<Lamp>("d"));
  EXPECT_EQ(take(), Texts{"c+"});
}

TEST_F(DirTest, GoesWhenAReactorDropsItsLastReference) {
  bool told = false;
  struct Dropper final : Notifiee<const Name&> {
    Dropper(Ptr<Dir>& place, bool& flag) : dir{place}, told{flag} {}
    void onAttribute(const Name&) override {
      told = true;
      dir = nullptr;
    }
    Ptr<Dir>& dir;
    bool& told;
  };
  Ptr<Dir> dropped = makePtr<Dir>("dropped");
  Dropper dropper{dropped, told};
  dropped->notifiees().attach(dropper);
  dropped->entityIs("a", makePtr<Lamp>("a"));
  EXPECT_TRUE(told);
  EXPECT_EQ(dropped, nullptr);
  EXPECT_FALSE(dropper.attached());
}

TEST_F(DirTest, HasAPathFromItsRootForAsLongAsItIsPlaced) {
  const auto root = makePtr<Dir>();
  const auto below = makePtr<Dir>("below");
  root->entityIs("lamps", dir_);
  dir_->entityIs("below", below);
  EXPECT_EQ(root->path(), "");
  EXPECT_EQ(below->path(), "lamps/below");
  root->entityDel("lamps");
  EXPECT_EQ(below->path(), "lamps/below");
  dir_->entityIs("below", makePtr<Dir>("below"));
  EXPECT_EQ(below->path(), "below");
}

TEST_F(DirTest, LeavesItsDirectoriesAsRootsWhenItGoes) {
  const auto below = makePtr<Dir>("below");
  {
    const auto root = makePtr<Dir>("root");
    root->entityIs("below", below);
    EXPECT_EQ(below->path(), "root/below");
  }
  EXPECT_EQ(below->path(), "below");
  // One that has moved to another directory keeps the new place.
  const auto first = makePtr<Dir>("first");
  const auto second = makePtr<Dir>("second");
  first->entityIs("below", below);
  second->entityIs("below", below);
  first->entityDel("below");
  EXPECT_EQ(below->path(), "second/below");
}

TEST_F(DirTest, IsUnchangedWhenAnEntityRefusesItsPlace) {
  struct Homeless final : Entity {
    void handleParent(Dir&) override { throw std::runtime_error{"no"}; }
  };
  dir_->entityIs("a", makePtr<Lamp>("a"));
  take();
  EXPECT_THROW(dir_->entityIs("a", makePtr<Homeless>()), std::runtime_error);
  EXPECT_THROW(dir_->entityIs("b", makePtr<Homeless>()), std::runtime_error);
  EXPECT_NE(dir_->entityPtr<Lamp>("a"), nullptr);
  EXPECT_EQ(dir_->entities().size(), 1U);
  EXPECT_EQ(take(), Texts{});
}

}  // namespace
}  // namespace Korm
