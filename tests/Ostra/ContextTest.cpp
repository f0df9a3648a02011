#include <cstdio>
#include <tuple>

#include <gmock/gmock.h>

#include "FlowFixture.h"
#include "Ostra/Ostra.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraStatusSm.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/P4Runtime/HandleMgr.h"

namespace OstraTest {
namespace {

using Ostra::FlowTableIndex;
using Ostra::OstraContext;
using Tessel::MountFlag;
using Tessel::MountStatus;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr const char* cxHwStatusDirPath = "corvex/cxHwStatusDir/dyninputstatus";
constexpr const char* flowCounterDirPath = "openflow/corvexhwstatusdir";
constexpr const char* ipv4EncapTablePath = "routing/l2nexthopgroup/ipv4EncapTable";

// A context in a service: the state database with all that is to be mounted, and the service's objects,
// with flow tables in the slots 0, 3, 14 and 15.
class Context : public FlowFixture {
 protected:
  Context() {
    manager->entityIs("corvex/dyninput/p4rt", cxHwConfig);
    manager->entityIs(cxHwStatusDirPath, cxHwStatusDir);
    manager->entityIs("corvex/configDir/p4rt", cxConfig);
    manager->entityIs(flowCounterDirPath, flowCounterDir);
    manager->entityIs("interface/status/all", Korm::makePtr<Interface::AllIntfStatusDir>("all"));
    manager->entityIs(ipv4EncapTablePath, encapTable);
    for (const std::uint8_t index :
         {std::uint8_t{0}, std::uint8_t{3}, std::uint8_t{14}, std::uint8_t{15}}) {
      tables->ostraConfigIs(FlowTableIndex{index},
                            Korm::makePtr<Ostra::OstraConfig>(std::to_string(index)));
    }
    tables->p4rtEcmpGroupTableIs(groupTable);
    tables->p4rtEcmpMemberTableIs(memberTable);
  }

  void make() {
    context = Ostra::ostraContextFactory(tables, vrfs, ports, batchStatus, telemetry, handles,
                                         validation, counters);
  }
  void complete(MountStatus status = MountStatus::success_) {
    context->doMountsComplete(status, manager);
  }
  void makeComplete() {
    make();
    complete();
  }
  [[nodiscard]] Ostra::OstraConfig& flowTable(std::uint8_t index) const {
    return *tables->ostraConfig(FlowTableIndex{index});
  }
  [[nodiscard]] Korm::Ptr<Ostra::OstraSm> flowSm(std::uint8_t index) const {
    const auto found = context->ostraSmColl().find(index);
    return found == context->ostraSmColl().end() ? nullptr : found->second;
  }
  [[nodiscard]] std::vector<std::uint32_t> references() const {
    return {tables->references(),
            vrfs->references(),
            ports->references(),
            batchStatus->references(),
            telemetry->references(),
            handles->references(),
            validation->references(),
            cxHwConfig->references(),
            cxConfig->references(),
            cxHwStatusDir->references(),
            encapTable->references(),
            groupTable->references(),
            memberTable->references(),
            manager->references(),
            tables->ostraConfig(FlowTableIndex{0})->references()};
  }

  const Korm::Ptr<Tessel::EntityManager> manager = Korm::makePtr<Tessel::EntityManager>();
  const Korm::Ptr<Korm::Dir> flowCounterDir = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encapTable =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  const Korm::Ptr<Ostra::OstraConfigTableColl> tables =
      Korm::makePtr<Ostra::OstraConfigTableColl>();
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> groupTable =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>();
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> memberTable =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>();
  const Korm::Ptr<P4Runtime::P4HandleMgr> handles = Korm::makePtr<P4Runtime::P4HandleMgr>();
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters =
      Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>();
  Korm::Ptr<OstraContext> context;
};

TEST_F(Context, DeclaresItsFourMountsInOrder) {
  make();
  Tessel::MountGroup group;
  TextTrace trace{5};
  context->doMounts(group);
  EXPECT_EQ(trace.take(), Texts{"5 OstraContext::doMounts"});
  using Declared = std::tuple<std::string, std::string, std::uint32_t, bool>;
  constexpr auto bits = [](MountFlag a, MountFlag b) {
    return static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b);
  };
  const std::uint32_t wc = bits(MountFlag::writable_, MountFlag::create_);
  const std::uint32_t ri = bits(MountFlag::read_, MountFlag::immediate_);
  std::vector<Declared> declared;
  for (const Tessel::Mount& mount : group.mounts()) {
    declared.emplace_back(mount.path, mount.typeName, mount.flags.bits, mount.filter);
  }
  EXPECT_EQ(declared, (std::vector<Declared>{
                          {"corvex/dyninput/p4rt", "OpenFlowTable::CorvexHwConfig", wc, false},
                          {"corvex/cxHwStatusDir/dyninputstatus/", "Korm::Dir", ri, false},
                          {"corvex/configDir/p4rt", "CorvexConfig::Config", wc, false},
                          {"openflow/corvexhwstatusdir", "Korm::Dir", ri, false}}));
}

TEST_F(Context, IsMadeWithNothingButItsInputs) {
  const auto before = references();
  make();
  EXPECT_TRUE(context->hasNotificationActive());
  EXPECT_TRUE(context->ostraSmColl().empty());
  EXPECT_FALSE(context->ostraStatusDirSm());
  EXPECT_FALSE(context->ostraEcmpGroupSm());
  EXPECT_FALSE(context->ipv4EncapTable());
  EXPECT_FALSE(cxHwConfig->counterPollEnable());
  EXPECT_FALSE(counters->counterImplMap(0));
  EXPECT_EQ(vrfs->references(), before[1] + 1);
  context = nullptr;
  EXPECT_EQ(references(), before);
}

TEST_F(Context, BuildsFifteenFlowStateMachinesAndOneOfEverythingElse) {
  for (const MountStatus status : {MountStatus::success_, MountStatus::failure_}) {
    make();
    TextTrace trace{5};
    complete(status);
    EXPECT_EQ(trace.take().at(0), "5 OstraContext::doMountsComplete");
    EXPECT_EQ(context->ostraSmColl().size(), 15U);
    for (std::uint8_t index = 0; index < 15; ++index) {
      ASSERT_TRUE(flowSm(index)) << int{index};
      EXPECT_TRUE(flowSm(index)->hasNotificationActive());
      EXPECT_TRUE(flowSm(index)->initialized());
      EXPECT_EQ(flowSm(index)->ostraConfigTable(), tables->ostraConfig(FlowTableIndex{index}));
      EXPECT_EQ(flowSm(index)->ostraStatusInfo(), context->ostraStatusDirSm()->ostraStatusInfo());
    }
    EXPECT_TRUE(flowTable(15).entryNotifiees().empty()) << "the last slot gets none";
    EXPECT_TRUE(cxHwConfig->counterPollEnable());
    EXPECT_TRUE(cxConfig->enabled());
    EXPECT_EQ(context->ipv4EncapTable(), encapTable);
    EXPECT_EQ(context->ostraEcmpGroupSm()->ipv4EncapTable(), encapTable);
    EXPECT_TRUE(context->ostraEcmpGroupSm()->hasNotificationActive());
    EXPECT_EQ(context->ostraStatusDirSm()->cxStatusDir(), cxHwStatusDir);
    EXPECT_EQ(context->ostraStatusDirSm()->p4rtEcmpGroupTable(), groupTable);
    EXPECT_TRUE(context->ostraStatusDirSm()->hasNotificationActive());
    ASSERT_TRUE(counters->counterImplMap(0));
    EXPECT_TRUE(counters->counterImplMap(0)->hasNotificationActive());
    counters->counterImplMapIs(0, nullptr);
    cxHwConfig->counterPollEnableIs(false);
  }
}

TEST_F(Context, CarriesAWriteFromTheTableToTheResult) {
  makeComplete();
  const auto status = publishHwStatus();
  batchStatus->batchStatusEntryIs(7);
  flowTable(3).entryIs(flow(7, plainKey(1)));
  ASSERT_NE(cxFlow(7), nullptr);
  EXPECT_EQ(results.take(), "");
  status->flowStatsIs("flow-7", OpenFlowTable::FlowStatus::programmed_);
  EXPECT_EQ(results.take(), "7 success");
  const auto unit = Korm::makePtr<OpenFlowTable::HwStatus>("unit0");
  flowCounterDir->entityIs("unit0", unit);
  unit->flowStatsIs("flow-7-p4rt").countersIs(10, 640);
  EXPECT_EQ(counters->counterImplMap(0)->getCounters(7).packets, 10U);
}

// Each of the fifteen takes the flows of the others for stale ones: what is left at the end is what the
// last one knows, until the service announces its rows.
TEST_F(Context, AtStartOnlyFlowsOfTheLastTableStayUntilTheOthersAreAnnounced) {
  flowTable(0).entryIs(flow(1, plainKey(1)));
  flowTable(3).entryIs(flow(2, plainKey(2)));
  flowTable(14).entryIs(flow(3, plainKey(3)));
  flowTable(15).entryIs(flow(4, plainKey(4)));
  placeCxFlow("flow-3");
  makeComplete();
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 1U);
  EXPECT_NE(cxFlow(3), nullptr);
  EXPECT_EQ(flowSm(0)->flowKeyToEntryHandle(plainKey(1)), 1U);
  flowTable(0).entryNotifiees().notify(plainKey(1));
  flowTable(3).entryNotifiees().notify(plainKey(2));
  flowTable(15).entryNotifiees().notify(plainKey(4));
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 3U);
}

TEST_F(Context, WhatIsMissingOrMistypedShowsAsNull) {
  manager->entityIs("corvex/dyninput/p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  manager->entityDel("corvex/configDir/p4rt");
  manager->entityDel("interface/status/all");
  manager->entityIs(ipv4EncapTablePath, Korm::makePtr<Korm::Dir>("ipv4EncapTable"));
  flowTable(0).entryIs(flow(1, plainKey(1)));
  makeComplete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  EXPECT_FALSE(context->ipv4EncapTable());
  EXPECT_FALSE(context->ostraEcmpGroupSm()->ipv4EncapTable());
  EXPECT_FALSE(context->ostraEcmpGroupSm()->cxHwConfig());
  EXPECT_FALSE(cxConfig->enabled());
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 0U);
}

TEST_F(Context, IsBuiltWithoutAnyInput) {
  context = Ostra::ostraContextFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, nullptr);
  publishHwStatus();
  complete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  EXPECT_TRUE(context->ostraStatusDirSm());
  EXPECT_TRUE(context->ostraEcmpGroupSm());
  context = nullptr;
}

using ContextDeathTest = Context;

// What the process says while a context is built, with flows and groups as they come.
void buildAloud(OpenFlowTable::CorvexHwConfig& cxHwConfig, const std::function<void()>& build) {
  Listener<const Korm::Name&> flows{cxHwConfig.flowEntryNotifiees(), [](const Korm::Name& name) {
                                      std::fprintf(stderr, "wrote %s\n", name.c_str());
                                    }};
  Listener<const OpenFlowTable::GroupId&> groups{
      cxHwConfig.groupEntryNotifiees(),
      [](const OpenFlowTable::GroupId&) { std::fprintf(stderr, "wrote a group\n"); }};
  build();
}

TEST_F(ContextDeathTest, WithoutTheHardwareStatusDirectoryTheProcessStopsBeforeAnythingIsBuilt) {
  flowTable(14).entryIs(flow(3, plainKey(3)));
  for (const bool mistyped : {false, true}) {
    manager->entityIs(cxHwStatusDirPath,
                      mistyped ? Korm::Ptr<Korm::Entity>{cxConfig} : Korm::Ptr<Korm::Entity>{});
    make();
    EXPECT_DEATH(buildAloud(*cxHwConfig, [&] { complete(); }),
                 AllOf(HasSubstr("Assertion failed: cxHwStatusDir (Ostra/Ostra:40)"),
                       Not(HasSubstr("wrote"))));
  }
}

TEST_F(ContextDeathTest, WithoutTheFlowCounterDirectoryItStopsWhenTheStateMachinesAreThere) {
  flowTable(14).entryIs(flow(3, plainKey(3)));
  NexthopGroup::EncapEntry encap;
  encap.encapId = 9;
  encap.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
  encapTable->entryIs(encap);
  P4RuntimeRouting::NexthopInfo member;
  member.memberId = 5;
  member.p4PortId = 1;
  member.encapId = 9;
  memberTable->entryIs(member);
  for (const bool mistyped : {false, true}) {
    manager->entityIs(flowCounterDirPath,
                      mistyped ? Korm::Ptr<Korm::Entity>{cxConfig} : Korm::Ptr<Korm::Entity>{});
    make();
    EXPECT_DEATH(buildAloud(*cxHwConfig, [&] { complete(); }),
                 ContainsRegex("wrote flow-3\nwrote a group\n(wrote a group\n)*"
                               "Assertion failed: flowCounterDir \\(Ostra/Ostra:88\\)"));
  }
}

TEST_F(Context, ASecondCompletionRebuildsWhatHasNewInputsAndKeepsTheRest) {
  makeComplete();
  const auto firstFlowSm = flowSm(3);
  const auto firstEcmpSm = context->ostraEcmpGroupSm();
  const auto firstDirSm = context->ostraStatusDirSm();
  const auto firstCounter = counters->counterImplMap(0);
  batchStatus->batchStatusEntryIs(7);
  flowTable(14).entryIs(flow(7, plainKey(1)));
  complete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  EXPECT_NE(flowSm(3), firstFlowSm);
  EXPECT_NE(context->ostraStatusDirSm(), firstDirSm) << "it shares the new status information";
  EXPECT_EQ(context->ostraEcmpGroupSm(), firstEcmpSm);
  EXPECT_NE(counters->counterImplMap(0), firstCounter);
  EXPECT_NE(cxFlow(7), nullptr);
  EXPECT_EQ(flowSm(14)->flowKeyToEntryHandle(plainKey(1)), 7U);

  const auto otherEncapTable =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  manager->entityIs(ipv4EncapTablePath, otherEncapTable);
  complete();
  EXPECT_NE(context->ostraEcmpGroupSm(), firstEcmpSm);
  EXPECT_EQ(context->ostraEcmpGroupSm()->ipv4EncapTable(), otherEncapTable);
  EXPECT_EQ(context->ipv4EncapTable(), otherEncapTable);
}

TEST_F(Context, KeepsAStateMachineWhoseEveryInputIsTheSame) {
  makeComplete();
  const auto info = context->ostraStatusDirSm()->ostraStatusInfo();
  const auto dirSmOn = [&](const Korm::Ptr<P4Runtime::BatchStatus>& batch,
                           const Korm::Ptr<P4RuntimeRouting::EcmpMember>& members) {
    return context->ostraStatusDirSmIs(cxHwStatusDir, batch, info, groupTable, members);
  };
  const auto dirSm = context->ostraStatusDirSm();
  EXPECT_EQ(dirSmOn(batchStatus, memberTable), dirSm);
  const auto replaced = dirSmOn(batchStatus, nullptr);
  EXPECT_NE(replaced, dirSm);
  EXPECT_EQ(context->ostraStatusDirSm(), replaced);
  EXPECT_TRUE(replaced->hasNotificationActive());

  const auto ecmpSmOn = [&](const Korm::Ptr<P4Runtime::P4HandleMgr>& manages) {
    return context->ostraEcmpGroupSmIs(cxHwConfig, groupTable, memberTable, encapTable, ports,
                                       validation, batchStatus, manages);
  };
  const auto ecmpSm = context->ostraEcmpGroupSm();
  EXPECT_EQ(ecmpSmOn(handles), ecmpSm);
  EXPECT_NE(ecmpSmOn(Korm::makePtr<P4Runtime::P4HandleMgr>()), ecmpSm);

  const auto removed = context->ostraEcmpGroupSmDel();
  EXPECT_FALSE(removed->hasNotificationActive());
  EXPECT_FALSE(context->ostraEcmpGroupSm());
  EXPECT_FALSE(context->ostraEcmpGroupSmDel());
  EXPECT_FALSE(context->ostraStatusDirSmDel()->hasNotificationActive());
  EXPECT_FALSE(context->ostraStatusDirSm());
  EXPECT_FALSE(context->ostraStatusDirSmDel());
}

TEST_F(Context, TheCollectionOfFlowStateMachinesInsertsReplacesAndRemoves) {
  make();
  table = tables->ostraConfig(FlowTableIndex{3});
  context->ostraSmCollIs(3, nullptr);
  EXPECT_TRUE(context->ostraSmColl().empty());
  EXPECT_FALSE(context->ostraSmCollDel(3));
  const auto first = makeSm();
  const auto second = makeSm();
  context->ostraSmCollIs(3, first);
  context->ostraSmCollIs(3, second);
  EXPECT_EQ(flowSm(3), second);
  EXPECT_EQ(first->references(), 1U);
  context->ostraSmCollIs(3, nullptr);
  EXPECT_TRUE(context->ostraSmColl().empty());
  context->ostraSmCollIs(255, first);
  EXPECT_EQ(context->ostraSmCollDel(255), first);
  context->ostraSmCollIs(1, first);
  context->ostraSmCollIs(2, second);
  context->ostraSmCollDelAll();
  EXPECT_TRUE(context->ostraSmColl().empty());
}

TEST_F(Context, GoingItLeavesCorvexAndLetsGoOfEverything) {
  const auto before = references();
  makeComplete();
  complete();
  publishHwStatus();
  batchStatus->batchStatusEntryIs(7);
  flowTable(0).entryIs(flow(7, plainKey(1)));
  context = nullptr;
  counters->counterImplMapIs(0, nullptr);
  EXPECT_EQ(references(), before);
  EXPECT_EQ(flowCounterDir->references(), 2U) << "the tree's and the test's";
  EXPECT_TRUE(flowTable(0).entryNotifiees().empty());
  EXPECT_TRUE(groupTable->entryNotifiees().empty());
  EXPECT_TRUE(encapTable->entryNotifiees().empty());
  EXPECT_TRUE(cxHwStatusDir->notifiees().empty());
  EXPECT_NE(cxFlow(7), nullptr);
}

// Writes down in which order the entities that it watches go.
class Departures {
 public:
  void watch(const std::string& name, Korm::Entity& entity, bool active) {
    Korm::Entity* const watched = &entity;
    listeners_.push_back(std::make_unique<Listener<>>(
        entity.zeroReferencesNotifiees(), [this, name, watched, active] {
          EXPECT_EQ(watched->hasNotificationActive(), active) << name;
          if (order_.empty() || order_.back() != name) {
            order_.push_back(name);
          }
        }));
  }
  [[nodiscard]] const Texts& order() const { return order_; }

 private:
  std::vector<std::unique_ptr<Listener<>>> listeners_;
  Texts order_;
};

TEST_F(Context, IsTakenDownStatusFirstInputsLast) {
  Departures departures;
  {
    auto encaps = Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
    manager->entityIs(ipv4EncapTablePath, encaps);
    departures.watch("encap table", *encaps, false);
  }
  {
    // Inputs that nobody but the context, and what it builds, holds.
    const auto own = [&](const char* name, auto entity) {
      departures.watch(name, *entity, false);
      return entity;
    };
    const auto batch = own("batch status", Korm::makePtr<P4Runtime::BatchStatus>());
    context = Ostra::ostraContextFactory(
        own("tables", Korm::makePtr<Ostra::OstraConfigTableColl>()),
        own("VRFs", Korm::makePtr<P4Runtime::VrfIdCollection>()),
        own("ports", Korm::makePtr<P4RuntimeConfig::PortMappingStatus>()), batch,
        own("telemetry", Korm::makePtr<P4Runtime::Telemetry>()),
        own("handles", Korm::makePtr<P4Runtime::P4HandleMgr>()),
        own("validation", Korm::makePtr<P4Runtime::DefaultValidationHelper>(nullptr)),
        own("counters", Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>()));
  }
  complete();
  manager->entityDel(ipv4EncapTablePath);
  departures.watch("status", *context->ostraStatusDirSm(), false);
  departures.watch("ECMP", *context->ostraEcmpGroupSm(), false);
  for (const auto& [index, flowSm] : context->ostraSmColl()) {
    departures.watch("flows", *flowSm, true);
  }
  context = nullptr;
  EXPECT_EQ(departures.order(),
            (Texts{"status", "ECMP", "encap table", "flows", "counters", "validation", "handles",
                   "telemetry", "batch status", "ports", "VRFs", "tables"}));
}

TEST_F(Context, ARowOutOfRangeMakesTheBuildFailAndLeavesNothingHalfBuilt) {
  OstraConfigEntry bad = flow(2, plainKey(2));
  bad.flowKey.priorityIs(65537);
  flowTable(3).entryIs(bad);
  flowTable(0).entryIs(flow(1, plainKey(1)));
  const auto before = references();
  make();
  EXPECT_EQ(raised([&] { complete(); }), "Priority::value < -1 or > Priority::max not allowed");
  EXPECT_TRUE(flowTable(3).entryNotifiees().empty());
  EXPECT_FALSE(flowSm(3));
  EXPECT_TRUE(flowSm(0)) << "what was built so far stays";
  EXPECT_FALSE(context->ostraStatusDirSm());
  EXPECT_FALSE(counters->counterImplMap(0));
  flowTable(3).entryDel(bad.key());
  complete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  context = nullptr;
  counters->counterImplMapIs(0, nullptr);
  EXPECT_EQ(references(), before);
}

}  // namespace
}  // namespace OstraTest
