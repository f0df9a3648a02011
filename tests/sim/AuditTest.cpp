// Explain before, audit after: what a write would do, and what an audit finds when somebody has
// interfered.

#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraSm.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

const Flow inVrf{.number = 1, .vrf = 5};
const Flow withPort{.number = 2, .output = 2};
const Flow plain{.number = 3};
const Flow toGroup{.number = 4, .group = 4};

// Entries 1 to 4: members 5 and 6, group 3 of member 5, group 4 of member 6; entries 5 to 8: the
// flows.
class Audit : public Switch {
 protected:
  Audit() {
    now = 1000;
    Korm::clockIs([] { return now; });
    service.portIs(2, Interface::IntfId{"Ethernet2"});
    step({write(Op::insert_, Member{.id = 5}), write(Op::insert_, Member{.id = 6})});
    step({write(Op::insert_, Group{.id = 3, .members = {5}}),
          write(Op::insert_, Group{.id = 4, .members = {6}})});
    step({insert(inVrf), insert(withPort), insert(plain), insert(toGroup)});
    now += 100;
  }
  // So that the service's own checks find their books as they were.
  ~Audit() override {
    if (flipped_ != nullptr) {
      *flipped_ ^= 1;
    }
    service.apply(modify(inVrf));
  }

  void step(const std::vector<Update>& batch) {
    now += 1;
    service.apply(batch);
  }

 public:
  [[nodiscard]] Ostra::OstraSm& machine() const { return *service.context()->ostraSmColl().at(0); }
  [[nodiscard]] P4Runtime::VrfIdCollection& books() const {
    return *machine().inputs().vrfIdCollection;
  }
  void index(const Ostra::OstraKey& key, P4Runtime::EntryHandle handle) {
    machine().flowKeyToEntryHandleIs(key, handle);
  }
  void removeGroup(OpenFlowTable::GroupId id) {
    service.hwConfig()->groupEntryDel(id);
    Sim::Service::settle();
  }
  // In a stored row, which nothing but a fault changes; back at the end.
  void flip(const auto& value) {
    flipped_ = const_cast<char*>(reinterpret_cast<const char*>(&value));
    *flipped_ ^= 1;
  }
  [[nodiscard]] const auto& ecmp() const { return service.context()->ostraEcmpGroupSm()->inputs(); }
  [[nodiscard]] const auto& row() const {
    return *machine().ostraConfigTable()->entry(rowOf(inVrf).flowKey);
  }
  // "fault flow-differs flow-5"
  [[nodiscard]] Lines findings() const {
    Lines lines;
    const Ostra::AuditReport report = service.audit().value();
    for (const Ostra::AuditFinding& finding : report.findings) {
      EXPECT_FALSE(finding.expected.empty() || finding.found.empty() || finding.cause.empty());
      lines.push_back((finding.fault ? "fault " : "expected ") +
                      std::string{auditKindText(finding.kind)} + " " + finding.about);
    }
    return lines;
  }

  static inline double now = 1000;

 private:
  char* flipped_ = nullptr;
};

// What commands can do is in tests/soak.
struct Plant {
  std::function<void(Audit& it)> damage;
  Texts found;
};

const Plant plants[] = {
    {[](Audit& it) { it.flip(it.row().flowKey); }, {"fault corrupt-row flow table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpMemberTable->entry(5)->p4PortId); },
     {"fault corrupt-row member table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpMemberTable->entry(5)->memberId); },
     {"fault corrupt-row member table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpGroupTable->entry(3)->entryHandle); },
     {"fault corrupt-row group table"}},
    {[](Audit& it) { it.flip(it.ecmp().ipv4EncapTable->entry(9)->src); },
     {"fault corrupt-row encapsulation table"}},
    {[](Audit& it) { it.index(rowOf(plain).flowKey, 99); }, {"fault index-differs entry 7"}},
    {[](Audit& it) { it.index(rowOf(toGroup).flowKey, 99); }, {"fault index-differs entry 8"}},
    {[](Audit& it) { it.index({}, 7); }, {"fault index-without-row entry 7"}},
    {[](Audit& it) { it.index({}, 77); }, {"expected index-without-row entry 77"}},
    {[](Audit& it) {
       it.machine().vrfIdIs(rowOf(inVrf).flowKey, 6);
       it.books().vrfIdRefCountDec(5, 1);
       it.books().vrfIdRefCountInc(6, 1);
     },
     {"fault vrf-differs entry 5"}},
    {[](Audit& it) { it.books().vrfIdRefCountInc(5, 1); }, {"fault vrf-count VRF 5"}},
    {[](Audit& it) { it.books().vrfIdRefCountInc(9, 1); }, {"fault vrf-count VRF 9"}},
    {[](Audit& it) { it.books().vrfCreatorRootHandleIs(5, 5); }, {"fault vrf-record VRF 5"}},
    {[](Audit& it) { it.books().vrfDeletorRootHandleIs(5, 5); }, {"fault vrf-record VRF 5"}},
    {[](Audit& it) { it.machine().inputs().ostraStatusInfo->dependentHandleToVrfMapIs(7, 5); },
     {"fault dependent entry 7"}},
    {[](Audit& it) { it.removeGroup(3); }, {"fault row-without-group group 3"}},
    {[](Audit& it) { it.removeGroup(memberBase + 5); }, {"fault row-without-group member 5"}},
    {[](Audit& it) {
       it.service.hwConfig()->groupEntryIs(77).changeCountIs(Audit::now);
       Sim::Service::settle();
     },
     {"fault group-without-row Corvex group 77"}},
    {[](Audit& it) { it.service.hwConfig()->groupEntry(3)->bucketDelAll(); },
     {"fault group-differs group 3"}},
    {[](Audit& it) { it.agent.publishedIs(false); },
     {"expected flow-without-group flow-8", "fault hardware-withdrawn the hardware status"}},
    {[](Audit& it) { it.agent.flowStatusIs("flow-7", FlowStatus::hardwareFull_); },
     {"expected hardware-failed flow-7"}},
    {[](Audit& it) { it.agent.flowStatusIs("flow-7", FlowStatus::programming_); },
     {"fault hardware-silent flow-7"}},
};

class PlantedFault : public Audit, public testing::WithParamInterface<std::size_t> {};

TEST_P(PlantedFault, IsFoundAndNothingElse) {
  EXPECT_THAT(findings(), IsEmpty());
  plants[GetParam()].damage(*this);
  EXPECT_EQ(findings(), plants[GetParam()].found);
  EXPECT_THAT(service.takeFaults(), IsEmpty());
  agent.publishedIs(true);
}

INSTANTIATE_TEST_SUITE_P(All, PlantedFault, testing::Range(std::size_t{0}, std::size(plants)));

TEST_F(Audit, GivesTheHardwareTimeToAnswer) {
  agent.automaticIs(false);
  service.apply(modify(plain));
  agent.flowStatusIs("flow-7", FlowStatus::programming_);
  now += 4;
  EXPECT_THAT(findings(), IsEmpty());
  ASSERT_EQ(service.pending().size(), 1U);
  EXPECT_EQ(service.pending()[0].handle, 7U);
  EXPECT_EQ(service.pending()[0].since, now - 4);
  now += 4;
  EXPECT_THAT(findings(), ElementsAre("fault hardware-silent flow-7"));
  agent.automaticIs(true);
  Sim::Service::settle();
  agent.flowStatusIs("flow-7", FlowStatus::programmed_);
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_THAT(service.pending(), IsEmpty());
}

TEST_F(Audit, ADryRunSaysWhatTheWriteThenDoesAndChangesNothing) {
  using Outcome = Ostra::FlowPreview::Outcome;
  const Flow flows[] = {
      inVrf,
      {.number = 1, .vrf = 6},
      {.number = 1, .group = 3},
      {.number = 5, .vrf = 6},
      {.number = 5, .vrf = 5, .group = 3},
      {.number = 6, .vrf = 7, .group = 9},
      {.number = 6, .vrf = 7, .output = 0},
      {.number = 6, .vrf = 8, .cpuTrafficClass = 17},
      {.number = 7, .vrf = 8, .output = 2, .priority = 70000},
      {.number = 7, .priority = -1},
  };
  for (const Flow& flow : flows) {
    SCOPED_TRACE(flow.number);
    const auto before = std::tuple{this->flows(), vrfs(), hardware()};
    const std::uint64_t stamps = machine().inputs().telemetry->total();
    const Ostra::FlowPreview preview = *service.explain(0, rowOf(flow));
    EXPECT_EQ((std::tuple{this->flows(), vrfs(), hardware()}), before);
    EXPECT_EQ(machine().inputs().telemetry->total(), stamps);
    EXPECT_THAT(reports(), IsEmpty());

    const auto oldVrf = preview.countedVrf;
    std::vector<Sim::Result> results = service.apply(insert(flow));
    if (results[0].state == Sim::State::rejected_) {
      results = service.apply(modify(flow));
    }
    const Sim::Result& result = results[0];
    EXPECT_EQ(preview.name, "flow-" + std::to_string(result.handle));
    EXPECT_EQ(result.succeeded(), preview.accepted());
    EXPECT_EQ(result.message, preview.message);
    if (preview.outcome == Outcome::refused_) {
      EXPECT_EQ(result.code, preview.code);
    } else if (preview.outcome == Outcome::outOfRange_) {
      EXPECT_EQ(result.state, Sim::State::failed_);
    }
    if (preview.accepted()) {
      const auto& written = *service.hwConfig()->flowEntry(preview.name);
      EXPECT_TRUE(written.match() == preview.match && written.actions() == preview.actions);
      EXPECT_EQ(written.priority().value(), preview.priority);
      EXPECT_EQ(preview.outcome == Outcome::modifies_, result.op == Op::modify_);
    }
    const auto vrf = machine().vrfId(rowOf(flow).flowKey);
    const auto counted = vrf == Vrf::VrfIdMap::none ? std::nullopt : std::optional{vrf};
    EXPECT_EQ(counted, preview.vrf.taken      ? preview.vrf.taken
                       : preview.vrf.released ? std::nullopt
                                              : oldVrf);
  }
}

}  // namespace
