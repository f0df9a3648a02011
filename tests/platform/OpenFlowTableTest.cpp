// The static-flow feature: what the configuration holds, and reactors that change it.

#include "platform/OpenFlowTable/HwConfig.h"
#include "tests/Heard.h"

namespace OpenFlowTable {
namespace {

using namespace TestSupport;

class HwConfigTest : public testing::Test {
 protected:
  FlowEntry& flow(const Korm::Name& name, bool sendFlowRemoved, bool persistent) {
    return config_->flowEntryIs(name, {}, {}, Priority{1}, 2, TableType::l3_, 3, 4.5, 5.5,
                                sendFlowRemoved, persistent);
  }
  Korm::Ptr<CorvexHwConfig> config_ = Korm::makePtr<CorvexHwConfig>("config");
  Heard<Korm::Name> flows_{config_->flowEntryNotifiees()};
  Heard<GroupId> groups_{config_->groupEntryNotifiees()};
};

TEST_F(HwConfigTest, HoldsWhatWasWrittenLast) {
  flow("f", true, false).entryIdIs(9);
  const FlowEntry& entry = flow("f", false, true);
  EXPECT_EQ(entry.entryId(), 9U) << "a flow that is replaced keeps its entry id";
  EXPECT_THAT((std::vector{entry.idleTimeout(), entry.hardTimeout()}), ElementsAre(4.5, 5.5));
  EXPECT_TRUE(entry.persistent() && !entry.sendFlowRemoved());
  EXPECT_EQ(entry.cookie(), 3U);
  GroupEntry& group = config_->groupEntryIs(5);
  for (const double count : {7.0, 4.0}) {
    group.changeCountIs(count);
    EXPECT_EQ(group.changeCount(), count) << "the clock may be set back";
  }
}

TEST_F(HwConfigTest, AReactorMayDeleteTheFlowOrTheGroupThatItHearsOf) {
  const Korm::Name name(100, 'f');
  flow(name, true, false);
  flows_.take();
  flows_.actionIs([this](const Korm::Name& told) { config_->flowEntryDel(told); });
  flow(config_->flowEntries().begin()->key, true, false);
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
