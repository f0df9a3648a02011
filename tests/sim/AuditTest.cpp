// Explain before, audit after: what a write would do, and what an audit finds when somebody has
// interfered.

#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraSm.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

// Of the flow that has this priority and matches everything.
Ostra::OstraKey keyOf(int priority) {
  Ostra::OstraKey key;
  key.priorityIs(priority);
  return key;
}

// Entries 1 to 4: members 5 and 6, group 3 of member 5, group 4 of member 6. Entries 5 to 8: flows.
class Audit : public Switch {
 protected:
  Audit() {
    play(
        "port 1 Ethernet1\nport 2 Ethernet2\nencap 9 src=192.0.2.1 dst=198.51.100.7\ninsert member "
        "5 port=1 encap=9\ninsert member 6 port=1 encap=9\n"
        "insert group 3 members=5\ninsert group 4 members=6\n"
        "insert flow priority=1 -> vrf=5\ninsert flow priority=2 -> output=2\n"
        "insert flow priority=3 -> drop\ninsert flow priority=4 -> group=4");
    now += 100;
  }
  // So that the service's own checks find their books as they were.
  ~Audit() override {
    if (flipped_ != nullptr) {
      *flipped_ ^= 1;
    }
    play("hw publish\nmodify flow priority=1 -> vrf=5");
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
  [[nodiscard]] const auto& flows() const { return *machine().ostraConfigTable(); }
  [[nodiscard]] const auto& ecmp() const { return service.context()->ostraEcmpGroupSm()->inputs(); }
  // "fault flow-differs flow-5"
  [[nodiscard]] Texts findings() const {
    Texts lines;
    const Ostra::AuditReport report = service.audit().value();
    for (const Ostra::AuditFinding& finding : report.findings) {
      EXPECT_FALSE(finding.expected.empty() || finding.found.empty() || finding.cause.empty());
      lines.push_back((finding.fault ? "fault " : "expected ") +
                      std::string{auditKindText(finding.kind)} + " " + finding.about);
    }
    return lines;
  }

 private:
  char* flipped_ = nullptr;
};

// What commands can do is in tests/soak.
struct Plant {
  std::function<void(Audit& it)> damage;
  Texts found;
};

const Plant plants[] = {
    {[](Audit& it) { it.flip(it.flows().entry(keyOf(1))->flowKey); },
     {"fault corrupt-row flow table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpMemberTable->entry(5)->p4PortId); },
     {"fault corrupt-row member table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpMemberTable->entry(5)->memberId); },
     {"fault corrupt-row member table"}},
    {[](Audit& it) { it.flip(it.ecmp().p4rtEcmpGroupTable->entry(3)->entryHandle); },
     {"fault corrupt-row group table"}},
    {[](Audit& it) { it.flip(it.ecmp().ipv4EncapTable->entry(9)->src); },
     {"fault corrupt-row encapsulation table"}},
    {[](Audit& it) { it.index(keyOf(3), 99); }, {"fault index-differs entry 7"}},
    {[](Audit& it) { it.index(keyOf(4), 99); }, {"fault index-differs entry 8"}},
    {[](Audit& it) { it.index({}, 7); }, {"fault index-without-row entry 7"}},
    {[](Audit& it) { it.index({}, 77); }, {"expected index-without-row entry 77"}},
    {[](Audit& it) {
       it.machine().vrfIdIs(keyOf(1), 6);
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
};

class PlantedFault : public Audit, public testing::WithParamInterface<std::size_t> {};

TEST_P(PlantedFault, IsFoundAndNothingElse) {
  EXPECT_THAT(findings(), IsEmpty());
  plants[GetParam()].damage(*this);
  EXPECT_EQ(findings(), plants[GetParam()].found);
  EXPECT_THAT(service.takeFaults(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, PlantedFault, testing::Range(std::size_t{0}, std::size(plants)));

TEST_F(Audit, GivesTheHardwareTimeToAnswer) {
  play("hw manual\nmodify flow priority=3 -> drop\nhw flow flow-7 3");
  now += 3;
  EXPECT_THAT(findings(), IsEmpty());
  ASSERT_EQ(service.pending().size(), 1U);
  EXPECT_EQ(service.pending()[0].handle, 7U);
  EXPECT_EQ(service.pending()[0].since, now - 4);
  now += 4;
  EXPECT_THAT(findings(), ElementsAre("fault hardware-silent flow-7"));
  play("hw auto\nhw flow flow-7 1");
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_THAT(service.pending(), IsEmpty());
}

TEST_F(Audit, ADryRunSaysWhatTheWriteThenDoesAndChangesNothing) {
  using Outcome = Ostra::FlowPreview::Outcome;
  for (const char* const words :
       {"priority=1 -> vrf=5", "priority=1 -> vrf=6", "priority=1 -> group=3",
        "priority=5 -> vrf=6", "priority=5 -> vrf=5 group=3", "priority=6 -> vrf=7 group=9",
        "priority=6 -> vrf=7 output=0", "priority=6 -> vrf=8 cpu-traffic-class=17",
        "priority=70000 -> vrf=8 output=2", "priority=-1 -> drop"}) {
    SCOPED_TRACE(words);
    const auto row = rowOf(words);
    const auto state = [this] { return play("show flows\nshow vrfs\nshow hw"); };
    const std::string before = state();
    const std::uint64_t stamps = machine().inputs().telemetry->total();
    const Ostra::FlowPreview preview = *service.explain(0, row);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(machine().inputs().telemetry->total(), stamps);
    EXPECT_THAT(service.takeReports(), IsEmpty());

    const auto apply = [&](Sim::Op op) { return service.apply(Sim::Update::flow(op, 0, row))[0]; };
    Sim::Result result = apply(Sim::Op::insert_);
    if (result.state == Sim::State::rejected_) {
      result = apply(Sim::Op::modify_);
    }
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
      EXPECT_EQ(preview.outcome == Outcome::modifies_, result.op == Sim::Op::modify_);
    }
    const auto vrf = machine().vrfId(row.flowKey);
    const auto counted = vrf == Vrf::VrfIdMap::none ? std::nullopt : std::optional{vrf};
    EXPECT_EQ(counted, preview.vrf.taken      ? preview.vrf.taken
                       : preview.vrf.released ? std::nullopt
                                              : preview.countedVrf);
  }
}

}  // namespace
