// The state database: entities by path, and mounts.

#include "platform/CorvexConfig/Config.h"
#include "platform/Korm/Exceptions.h"
#include "platform/Tessel/Tessel.h"
#include "tests/Testing.h"

namespace Tessel {
namespace {

using CorvexConfig::Config;

class EntityManagerTest : public testing::Test {
 protected:
  Korm::Ptr<EntityManager> manager_ = Korm::makePtr<EntityManager>();

  static Mount mount(const std::string& path, const std::string& type, const char* mode) {
    Mount made{.path = path, .typeName = type, .flags = {}};
    made.flags.parse(mode);
    return made;
  }
  MountStatus complete(const Mount& wanted) {
    MountGroup group;
    group.mountIs(wanted);
    return manager_->complete(group);
  }
};

TEST_F(EntityManagerTest, FindsWhatStandsAtAPathWithTheTypeAskedFor) {
  const auto config = Korm::makePtr<Config>("config");
  manager_->entityIs("/corvex//configDir/a/", config);
  for (const char* path : {"corvex/configDir/a", "//corvex/configDir///a//"}) {
    EXPECT_EQ(manager_->entity<Config>(path), config) << "empty names are passed over";
  }
  EXPECT_EQ(manager_->entity<Korm::Dir>("corvex/configDir/a"), nullptr);
  EXPECT_EQ(manager_->entity<Korm::Dir>("corvex/configDir")->path(), "corvex/configDir");
  for (const char* path :
       {"corvex/configdir/a", "corvex/configDir/a/below", "corvex/configDir/a2"}) {
    EXPECT_EQ(manager_->entity(path), nullptr) << path;
  }
  EXPECT_EQ(manager_->entity("/").get(), &manager_->root());
  EXPECT_EQ(manager_->entityDel("corvex/configDir/a/below"), nullptr);
  EXPECT_EQ(manager_->entityDel("corvex/configDir/a/"), config);
  EXPECT_EQ(manager_->entity("corvex/configDir/a"), nullptr);
}

TEST_F(EntityManagerTest, CreatesWhatIsMissingOnlyWhereTheModeAndTheTypeAllowIt) {
  manager_->typeIs<Config>();
  EXPECT_EQ(complete(mount("config/a", Config::typeName, "wc")), MountStatus::success_);
  const auto made = manager_->entity<Config>("config/a");
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->name(), "a");
  EXPECT_EQ(complete(mount("config/a", Config::typeName, "wc")), MountStatus::success_);
  EXPECT_EQ(manager_->entity<Config>("config/a"), made) << "what is there stays";
  EXPECT_EQ(complete(mount("config/a/", Config::typeName, "ri")), MountStatus::success_);

  EXPECT_EQ(complete(mount("config/other", Config::typeName, "ri")), MountStatus::failure_);
  EXPECT_EQ(complete(mount("config/other", "No::SuchType", "wc")), MountStatus::failure_);
  EXPECT_EQ(complete(mount("config/a/below", Config::typeName, "wc")), MountStatus::failure_);
  manager_->typeIs("No::Entity", [](const Korm::Name&) { return nullptr; });
  EXPECT_EQ(complete(mount("config/other", "No::Entity", "wc")), MountStatus::failure_);
  EXPECT_EQ(manager_->entity("config/other"), nullptr);
}

}  // namespace
}  // namespace Tessel
