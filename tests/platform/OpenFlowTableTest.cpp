// The static-flow feature: configuration that is changed by those who hear of it.
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/OpenFlowTable/HwConfig.h"

namespace OpenFlowTable {
namespace {

using testing::ElementsAre;

// Writes down what it hears.
template <class Key>
class Listener final : public Korm::Notifiee<const Key&> {
 public:
  explicit Listener(Korm::NotifieeList<const Key&>& list) { list.attach(*this); }
  void onAttribute(const Key& key) override {
    if (const auto action = action_) {
      action(key);
    }
    heard_.push_back(key);
  }
  void actionIs(std::function<void(const Key&)> action) { action_ = std::move(action); }
  std::vector<Key> take() { return std::exchange(heard_, {}); }

 private:
  std::function<void(const Key&)> action_;
  std::vector<Key> heard_;
};
class HwConfigTest : public testing::Test {
 protected:
  FlowEntry& flow(const Korm::Name& name) {
    return config_->flowEntryIs(name, {}, {}, Priority{1}, 2, TableType::l3_, 3, 4.5, 5.5, true,
                                false);
  }
  Korm::Ptr<CorvexHwConfig> config_ = Korm::makePtr<CorvexHwConfig>("p4rt");
  Listener<Korm::Name> flows_{config_->flowEntryNotifiees()};
  Listener<GroupId> groups_{config_->groupEntryNotifiees()};
};

TEST_F(HwConfigTest, AReactorMayDeleteTheFlowOrTheGroupThatItHearsOf) {
  const Korm::Name name(100, 'f');
  flow(name);
  flows_.take();
  flows_.actionIs([this](const Korm::Name& told) { config_->flowEntryDel(told); });
  flow(config_->flowEntries().begin()->key);
  EXPECT_THAT(flows_.take(), ElementsAre(name, name));
  EXPECT_TRUE(config_->flowEntries().empty());

  GroupEntry& group = config_->groupEntryIs(5);
  groups_.take();
  groups_.actionIs([this](GroupId id) { config_->groupEntryDel(id); });
  group.changeCountIs(1);
  EXPECT_EQ(config_->groupEntry(5), nullptr);
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5));
}

}  // namespace
}  // namespace OpenFlowTable
