// How the library is built on what is mounted, built again, and taken down.

#include "FlowFixture.h"
#include "Ostra/Ostra.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraStatusSm.h"
#include "platform/P4Runtime/Counter.h"

namespace OstraTest {
namespace {

namespace StatePath = Ostra::StatePath;

// A context in a service: the state database with all that is to be mounted, and the service's
// objects, with flow tables in the slots 0, 3, 14 and 15.
class Context : public FlowFixture {
 protected:
  Context() {
    manager->entityIs(StatePath::cxHwConfig, cxHwConfig);
    manager->entityIs(StatePath::cxHwStatusDir, cxHwStatusDir);
    manager->entityIs(StatePath::cxConfig, cxConfig);
    manager->entityIs(StatePath::flowCounterDir, flowCounterDir);
    manager->entityIs(StatePath::intfStatusDir, Korm::makePtr<Interface::AllIntfStatusDir>("all"));
    manager->entityIs(StatePath::ipv4EncapTable, encaps);
    for (const int index : {0, 3, 14, 15}) {
      tables->ostraConfigIs(FlowTableIndex{index},
                            Korm::makePtr<Ostra::OstraConfig>(std::to_string(index)));
    }
    tables->p4rtEcmpGroupTableIs(groups);
    tables->p4rtEcmpMemberTableIs(members);
  }

  void make() {
    context = Ostra::ostraContextFactory(tables, vrfs, ports, batchStatus, telemetry, handles,
                                         validation, counters);
  }
  void complete(Tessel::MountStatus status = Tessel::MountStatus::success_) {
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
  // Of everything that the context is given or finds.
  [[nodiscard]] std::vector<std::uint32_t> references() const {
    return referencesOf(tables, vrfs, ports, batchStatus, telemetry, handles, validation,
                        cxHwConfig, cxConfig, cxHwStatusDir, flowCounterDir, encaps, groups,
                        members, manager, tables->ostraConfig(FlowTableIndex{0}));
  }

 public:
  const Korm::Ptr<Tessel::EntityManager> manager = Korm::makePtr<Tessel::EntityManager>();
  const Korm::Ptr<Korm::Dir> flowCounterDir = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  const Korm::Ptr<Ostra::OstraConfigTableColl> tables =
      Korm::makePtr<Ostra::OstraConfigTableColl>();
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters =
      Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>();
  Korm::Ptr<Ostra::OstraContext> context;
};

using Tessel::MountStatus;
using testing::ContainsRegex;

TEST_F(Context, DeclaresItsFourMountsInOrder) {
  make();
  Tessel::MountGroup group;
  context->doMounts(group);
  using Tessel::MountFlag;
  constexpr std::pair<MountFlag, char> letters[] = {{MountFlag::read_, 'r'},
                                                    {MountFlag::writable_, 'w'},
                                                    {MountFlag::create_, 'c'},
                                                    {MountFlag::immediate_, 'i'}};
  Texts declared;
  for (const Tessel::Mount& mount : group.mounts()) {
    std::string& text = declared.emplace_back(mount.path + " " + mount.typeName + " ");
    for (const auto& [flag, letter] : letters) {
      if ((mount.flags.bits & static_cast<std::uint32_t>(flag)) != 0) {
        text += letter;
      }
    }
    EXPECT_FALSE(mount.filter);
  }
  EXPECT_EQ(declared, (Texts{"corvex/dyninput/p4rt OpenFlowTable::CorvexHwConfig wc",
                             "corvex/cxHwStatusDir/dyninputstatus/ Korm::Dir ri",
                             "corvex/configDir/p4rt CorvexConfig::Config wc",
                             "openflow/corvexhwstatusdir Korm::Dir ri"}));
}

TEST_F(Context, BuildsFifteenFlowStateMachinesAndOneOfEverythingElse) {
  for (const MountStatus status : {MountStatus::success_, MountStatus::failure_}) {
    make();
    EXPECT_TRUE(context->ostraSmColl().empty());
    complete(status);
    EXPECT_EQ(context->ostraSmColl().size(), 15U);
    for (std::uint8_t index = 0; index < 15; ++index) {
      ASSERT_TRUE(flowSm(index)) << int{index};
      EXPECT_TRUE(flowSm(index)->hasNotificationActive());
      EXPECT_EQ(flowSm(index)->ostraConfigTable(), tables->ostraConfig(FlowTableIndex{index}));
      EXPECT_EQ(flowSm(index)->inputs().ostraStatusInfo,
                context->ostraStatusDirSm()->inputs().ostraStatusInfo);
    }
    EXPECT_TRUE(flowTable(15).entryNotifiees().empty()) << "the last slot gets none";
    EXPECT_TRUE(cxHwConfig->counterPollEnable());
    EXPECT_TRUE(cxConfig->enabled());
    EXPECT_TRUE(context->ostraEcmpGroupSm()->hasNotificationActive());
    EXPECT_TRUE(context->ostraStatusDirSm()->hasNotificationActive());
    ASSERT_TRUE(counters->counterImplMap(0));
    EXPECT_TRUE(counters->counterImplMap(0)->hasNotificationActive());
    counters->counterImplMapIs(0, nullptr);
    cxHwConfig->counterPollEnableIs(false);
  }
}

TEST_F(Context, BuildsInOrder) {
  writeEncap();
  writeMember({.id = 5});
  publishHwStatus()->flowStatsIs("flow-42", OpenFlowTable::FlowStatus::programmed_);
  flowTable(14).entryIs(flow(3, plainKey(3)));
  Texts order;
  const auto says = [&order](const char* what) {
    return [&order, what] { order.emplace_back(what); };
  };
  Listener<> polling{cxHwConfig->counterPollEnableNotifiees(), says("polling on")};
  Listener<> enabled{cxConfig->enabledNotifiees(), says("Corvex enabled")};
  Listener<const Korm::Name&> flows{cxHwConfig->flowEntryNotifiees(),
                                    [&](const Korm::Name& name) { order.push_back(name); }};
  Listener<const P4Runtime::TransactionResult&> reports{
      batchStatus->resultNotifiees(),
      [&](const P4Runtime::TransactionResult&) { order.emplace_back("status reported"); }};
  Listener<const OpenFlowTable::GroupId&> corvexGroups{cxHwConfig->groupEntryNotifiees(),
                                                       [&](const OpenFlowTable::GroupId&) {
                                                         if (order.back() != "group written") {
                                                           order.emplace_back("group written");
                                                         }
                                                       }};
  makeComplete();
  EXPECT_EQ(order,
            (Texts{"polling on", "Corvex enabled", "flow-3", "status reported", "group written"}));
}

TEST_F(Context, DirectCountersAreReadAfreshFromEveryUnitThatHasTheFlow) {
  makeComplete();
  const auto unit = [this](const char* name) {
    auto status = Korm::makePtr<OpenFlowTable::HwStatus>(name);
    flowCounterDir->entityIs(name, status);
    return status;
  };
  const auto counted = [this](std::uint64_t handle) {
    return counters->counterImplMap(0)->getCounters(handle);
  };
  using P4Runtime::P4CounterData;
  EXPECT_EQ(counted(7), P4CounterData{});
  unit("unit-0")->flowStatsIs("flow-7-p4rt").countersIs(10, 1000);
  const auto second = unit("unit-1");
  second->flowStatsIs("flow-7-p4rt").countersIs(5, 500);
  for (const char* const other : {"flow-7", "flow-7-other", "flow-70-p4rt"}) {
    second->flowStatsIs(other).countersIs(1, 1);
  }
  flowCounterDir->entityIs("other", Korm::makePtr<Korm::Dir>("other"));
  EXPECT_EQ(counted(7), (P4CounterData{0, 15, 1500}));
  second->flowStatsIs("flow-7-p4rt").countersIs(6, 600);
  flowCounterDir->entityDel("unit-0");
  EXPECT_EQ(counted(7), (P4CounterData{0, 6, 600}));
}

TEST_F(Context, WhatIsMissingOrMistypedShowsAsNull) {
  manager->entityIs(StatePath::cxHwConfig, Korm::makePtr<Korm::Dir>(Ostra::p4rtName));
  manager->entityDel(StatePath::cxConfig);
  manager->entityDel(StatePath::intfStatusDir);
  manager->entityIs(StatePath::ipv4EncapTable, Korm::makePtr<Korm::Dir>("ipv4EncapTable"));
  flowTable(0).entryIs(flow(1, plainKey(1)));
  makeComplete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  EXPECT_FALSE(context->ipv4EncapTable());
  EXPECT_FALSE(context->ostraEcmpGroupSm()->inputs().ipv4EncapTable);
  EXPECT_FALSE(context->ostraEcmpGroupSm()->inputs().cxHwConfig);
  EXPECT_FALSE(cxConfig->enabled());

  context = Ostra::ostraContextFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, nullptr);
  publishHwStatus();
  complete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U) << "without any input";
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 0U);
}

class ContextDeathTest : public Context {
 protected:
  // Completes, with flows and groups written to the standard error as they come.
  void completeAloud() {
    Listener<const Korm::Name&> flowWrites{
        cxHwConfig->flowEntryNotifiees(),
        [](const Korm::Name& name) { std::fprintf(stderr, "wrote %s\n", name.c_str()); }};
    Listener<const OpenFlowTable::GroupId&> groupWrites{
        cxHwConfig->groupEntryNotifiees(),
        [](const OpenFlowTable::GroupId&) { std::fprintf(stderr, "wrote a group\n"); }};
    complete();
  }
  // Expects this end of the process, whether the entity is missing or of another type.
  void expectDeathWithout(const char* path, const testing::Matcher<const std::string&>& said) {
    flowTable(14).entryIs(flow(3, plainKey(3)));
    writeEncap();
    writeMember({.id = 5});
    for (const Korm::Ptr<Korm::Entity>& instead : {Korm::Ptr<Korm::Entity>{cxConfig}, {}}) {
      manager->entityIs(path, instead);
      make();
      EXPECT_DEATH(completeAloud(), said);
    }
  }
};

TEST_F(ContextDeathTest, WithoutTheHardwareStatusDirectoryTheProcessStopsBeforeAnythingIsBuilt) {
  expectDeathWithout(StatePath::cxHwStatusDir,
                     AllOf(HasSubstr("Assertion failed: cxHwStatusDir (Ostra/Ostra:40)"),
                           Not(HasSubstr("wrote"))));
}

TEST_F(ContextDeathTest, WithoutTheFlowCounterDirectoryItStopsWhenTheStateMachinesAreThere) {
  expectDeathWithout(StatePath::flowCounterDir,
                     ContainsRegex("wrote flow-3\nwrote a group\n(wrote a group\n)*"
                                   "Assertion failed: flowCounterDir \\(Ostra/Ostra:88\\)"));
}

TEST_F(Context, ASecondCompletionRebuildsWhatHasNewInputsAndKeepsTheRest) {
  makeComplete();
  const auto firstFlowSm = flowSm(3);
  const auto firstEcmpSm = context->ostraEcmpGroupSm();
  const auto firstDirSm = context->ostraStatusDirSm();
  const auto firstCounter = counters->counterImplMap(0);
  flowTable(14).entryIs(flow(7, plainKey(1)));
  complete();
  EXPECT_EQ(context->ostraSmColl().size(), 15U);
  EXPECT_NE(flowSm(3), firstFlowSm);
  EXPECT_NE(context->ostraStatusDirSm(), firstDirSm) << "it shares the new status information";
  EXPECT_EQ(context->ostraEcmpGroupSm(), firstEcmpSm);
  EXPECT_NE(counters->counterImplMap(0), firstCounter);
  EXPECT_NE(cxFlow(7), nullptr);

  const auto otherEncapTable =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable");
  manager->entityIs(StatePath::ipv4EncapTable, otherEncapTable);
  complete();
  EXPECT_NE(context->ostraEcmpGroupSm(), firstEcmpSm);
  EXPECT_EQ(context->ostraEcmpGroupSm()->inputs().ipv4EncapTable, otherEncapTable);
  EXPECT_EQ(context->ipv4EncapTable(), otherEncapTable);
}

TEST_F(Context, KeepsAStateMachineWhoseEveryInputIsTheSame) {
  publishHwStatus();
  makeComplete();
  // Stores it with the same inputs, and then with another one.
  const auto expectReplaced = [](const auto& stored, const auto& store) {
    const auto before = stored();
    EXPECT_EQ(store(true), before);
    const auto after = store(false);
    EXPECT_NE(after, before);
    EXPECT_EQ(stored(), after);
    EXPECT_TRUE(after->hasNotificationActive());
    EXPECT_FALSE(before->hasNotificationActive()) << "somebody may still hold the old one";
  };
  expectReplaced([this] { return context->ostraStatusDirSm()->p4RtCxStatusSm(); },
                 [this](bool same) {
                   const auto& dirSm = context->ostraStatusDirSm();
                   const auto in = dirSm->p4RtCxStatusSm()->inputs();
                   return dirSm->p4RtCxStatusSmIs(in.cxHwStatus, same ? in.batchStatus : nullptr,
                                                  in.ostraStatusInfo, in.p4rtEcmpGroupTable,
                                                  in.p4rtEcmpMemberTable);
                 });
  expectReplaced([this] { return context->ostraStatusDirSm(); },
                 [this](bool same) {
                   const auto in = context->ostraStatusDirSm()->inputs();
                   return context->ostraStatusDirSmIs(
                       in.cxStatusDir, same ? in.batchStatus : nullptr, in.ostraStatusInfo,
                       in.p4rtEcmpGroupTable, in.p4rtEcmpMemberTable);
                 });
  expectReplaced([this] { return context->ostraEcmpGroupSm(); },
                 [this](bool same) {
                   const auto in = context->ostraEcmpGroupSm()->inputs();
                   return context->ostraEcmpGroupSmIs(
                       in.cxHwConfig, in.p4rtEcmpGroupTable, in.p4rtEcmpMemberTable,
                       in.ipv4EncapTable, in.p4RtPortMappingStatus, in.validationHelper,
                       in.batchStatus, same ? in.p4HandleMgr : nullptr);
                 });
  EXPECT_FALSE(context->ostraEcmpGroupSmDel()->hasNotificationActive());
  EXPECT_FALSE(context->ostraEcmpGroupSmDel()) << "it is gone";
  EXPECT_FALSE(context->ostraStatusDirSmDel()->hasNotificationActive());
  EXPECT_FALSE(context->ostraStatusDirSmDel());
}

TEST_F(Context, ReleasesItsInputsAndLeavesTheFlowsInCorvex) {
  const auto before = references();
  makeComplete();
  complete();
  publishHwStatus();
  batchStatus->batchStatusEntryIs(7);
  flowTable(0).entryIs(flow(7, plainKey(1)));
  context = nullptr;
  counters->counterImplMapIs(0, nullptr);
  EXPECT_EQ(references(), before);
  EXPECT_TRUE(flowTable(0).entryNotifiees().empty());
  EXPECT_TRUE(groups->entryNotifiees().empty());
  EXPECT_TRUE(encaps->entryNotifiees().empty());
  EXPECT_TRUE(cxHwStatusDir->notifiees().empty());
  EXPECT_NE(cxFlow(7), nullptr);
}

TEST_F(Context, DestroysTheStatusFirstAndReleasesItsInputsLast) {
  Texts order;
  std::vector<std::unique_ptr<Listener<>>> departures;
  // Writes down when the entity goes, and checks whether its notifications are on then.
  const auto watch = [&](const std::string& name, Korm::Entity& entity, bool active) {
    departures.push_back(std::make_unique<Listener<>>(
        entity.zeroReferencesNotifiees(), [&order, &entity, name, active] {
          EXPECT_EQ(entity.hasNotificationActive(), active) << name;
          if (order.empty() || order.back() != name) {
            order.push_back(name);
          }
        }));
  };
  // An input that nobody but the context, and what it builds, holds.
  const auto own = [&](const char* name, auto entity) {
    watch(name, *entity, false);
    return entity;
  };
  manager->entityIs(
      StatePath::ipv4EncapTable,
      own("encap table", Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("ipv4EncapTable")));
  context = Ostra::ostraContextFactory(
      own("tables", Korm::makePtr<Ostra::OstraConfigTableColl>()),
      own("VRFs", Korm::makePtr<P4Runtime::VrfIdCollection>()),
      own("ports", Korm::makePtr<P4RuntimeConfig::PortMappingStatus>()),
      own("batch status", Korm::makePtr<P4Runtime::BatchStatus>()),
      own("telemetry", Korm::makePtr<P4Runtime::Telemetry>()),
      own("handles", Korm::makePtr<P4Runtime::P4HandleMgr>()),
      own("validation", Korm::makePtr<P4Runtime::DefaultValidationHelper>(nullptr)),
      own("counters", Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>()));
  complete();
  manager->entityDel(StatePath::ipv4EncapTable);
  watch("status", *context->ostraStatusDirSm(), false);
  watch("ECMP", *context->ostraEcmpGroupSm(), false);
  for (const auto& [index, flowSm] : context->ostraSmColl()) {
    watch("flows", *flowSm, true);
  }
  context = nullptr;
  EXPECT_EQ(order, (Texts{"status", "ECMP", "encap table", "flows", "counters", "validation",
                          "handles", "telemetry", "batch status", "ports", "VRFs", "tables"}));
}

}  // namespace
}  // namespace OstraTest
