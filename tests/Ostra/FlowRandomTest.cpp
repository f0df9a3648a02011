// Random writes against a model of what a controller may expect.
#include <iterator>
#include <map>
#include <optional>
#include <random>

#include "FlowFixture.h"
#include "tests/Sanitizers.h"

namespace OstraTest {
namespace {

// What the match of a flow may have wrong, for good: another match would be another flow.
struct MatchFault {
  const char* said;
  bool late;  // found when the VRF is booked and the key is mapped
  void (*put)(OstraKey& key);
};
constexpr MatchFault matchFaults[] = {
    {"raised: VlanIdOrAnyOrNone", false, [](OstraKey& key) { key.vlanIdIs(1, 4096); }},
    {"raised: Priority", true, [](OstraKey& key) { key.priorityIs(-2); }},
    {"raised: Priority", true, [](OstraKey& key) { key.priorityIs(65537); }},
};

// What a controller may ask for in one write.
struct Wish {
  std::optional<VrfId> vrf;
  bool badPort = false;
  bool badCpuTrafficClass = false;
  std::optional<std::uint32_t> group;
  std::uint8_t dscp = 0;  // tells one write from the next
};

struct VrfBooks {
  std::optional<std::uint32_t> users;
  std::optional<std::uint64_t> creator;
  std::optional<std::uint64_t> deletor;

  bool operator==(const VrfBooks&) const = default;
};

struct ModelFlow {
  Wish wish;
  bool modified = false;
};

struct Model {
  struct Row {
    std::uint64_t handle;
    Wish wish;
  };
  using Number = std::uint16_t;  // of a key

  std::map<Number, Row> rows;
  std::map<std::uint64_t, ModelFlow> flows;
  std::map<Number, std::uint64_t> mapped;
  std::map<Number, VrfId> vrfOf;
  std::map<VrfId, VrfBooks> vrfs;
  std::map<std::uint64_t, VrfId> waiting;  // entries that a VRF waits for
  bool groupReady = false;                 // there is but one group
  std::uint64_t stamps = 0;

  // The beginning of what a write says, and whether it marked its entry.
  struct Outcome {
    std::string said;
    bool marked = false;
  };

  static const MatchFault* faultOf(Number number) {
    return number % 8 < std::size(matchFaults) ? &matchFaults[number % 8] : nullptr;
  }

  Outcome write(Number number) {
    const auto& [handle, wish] = rows.at(number);
    const std::string refused = std::to_string(handle) + " ";
    const MatchFault* const fault = faultOf(number);
    if (fault != nullptr && !fault->late) {
      return {fault->said};
    }
    if (wish.badPort) {
      return {refused + "invalidArgument: egress port-id"};
    }
    const bool marked = moveTo(number, wish.vrf, handle);
    if (wish.badCpuTrafficClass) {
      return {"raised: TrafficClass", marked};
    }
    if (wish.group && !groupReady) {
      return {refused + "notFound: Group id: " + std::to_string(*wish.group), marked};
    }
    mapped[number] = handle;
    if (fault != nullptr) {
      return {fault->said, marked};
    }
    const bool existed = flows.contains(handle);
    flows[handle] = {wish, existed};
    ++stamps;
    return {"", marked};
  }

  Outcome remove(Number number) {
    rows.erase(number);
    if (!mapped.contains(number)) {
      return {"0 success"};
    }
    const std::uint64_t handle = mapped.at(number);
    if (flows.erase(handle) == 0) {
      return {std::to_string(handle) + " success"};
    }
    ++stamps;
    const bool marked = moveTo(number, std::nullopt, handle);
    mapped.erase(number);
    return {"", marked};
  }

  bool moveTo(Number number, std::optional<VrfId> target, std::uint64_t handle) {
    const auto held = vrfOf.find(number);
    const std::optional<VrfId> source =
        held == vrfOf.end() ? std::nullopt : std::optional{held->second};
    if (source == target) {
      return false;
    }
    bool marked = false;
    if (source) {
      VrfBooks& left = vrfs[*source];
      if (left.users == 1U && !left.deletor) {
        left.deletor = handle;
        waiting[handle] = *source;
        marked = true;
      }
      --*left.users;
      vrfOf.erase(number);
    }
    if (target) {
      VrfBooks& entered = vrfs[*target];
      if (entered.users.value_or(0) == 0 && !entered.creator) {
        entered.creator = handle;
        waiting[handle] = *target;
        marked = true;
      }
      vrfOf[number] = *target;
      entered.users = entered.users.value_or(0) + 1;
    }
    return marked;
  }
};

class FlowRandom : public FlowFixture {
 protected:
  static constexpr Model::Number keys = 48;
  static constexpr VrfId vrfCount = 16;  // many, so that users are often the first and the last
  static constexpr std::uint32_t group = 3;

  FlowRandom() {
    start();
    status_ = publishHwStatus();
    cxHwConfig->groupEntryIs(group);
    status_->groupStatsIs(group, OpenFlowTable::GroupStatus::pending_);
  }

  bool oneIn(unsigned n) { return random_() % n == 0; }
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }

  static OstraKey keyOf(Model::Number number) {
    OstraKey key = plainKey(number);
    if (const MatchFault* const fault = Model::faultOf(number)) {
      fault->put(key);
    }
    return key;
  }

  Wish randomWish() {
    Wish wish;
    if (!oneIn(3)) {
      wish.vrf = static_cast<VrfId>(below(vrfCount));
    }
    wish.badPort = oneIn(10);
    wish.badCpuTrafficClass = oneIn(10);
    if (oneIn(4)) {
      wish.group = group;
    }
    wish.dscp = static_cast<std::uint8_t>(random_());
    return wish;
  }

  OstraConfigEntry entryOf(Model::Number number, const Model::Row& row) {
    const Wish& wish = row.wish;
    OstraConfigEntry entry = flow(row.handle, keyOf(number));
    entry.actions.setDscpIs(wish.dscp, true);
    entry.actions.uncheckedIs<OpenFlowTable::Action::cpuTrafficClass_>(17, wish.badCpuTrafficClass);
    entry.outputPortIs(wish.badPort ? 0 : 2);
    entry.vrfGiven = wish.vrf.has_value();
    entry.vrfId = wish.vrf.value_or(99);
    entry.groupGiven = wish.group.has_value();
    entry.groupId = wish.group.value_or(99);
    return entry;
  }

  // One write of a controller, or one event behind the library's back.
  void step() {
    const auto number = static_cast<Model::Number>(below(keys));
    const auto found = model.rows.find(number);
    switch (below(16)) {
      case 0:
        return vanish();
      case 1:
        return forgetRoots();
      case 2:
        model.groupReady = oneIn(2);
        return status_->groupStatsIs(group).statusIs(OpenFlowTable::GroupStatus{
            model.groupReady ? 0U : static_cast<std::uint32_t>(1 + below(4))});
      case 3:
      case 4:
      case 5:
      case 6:
        if (found != model.rows.end()) {
          const Model::Row row = found->second;
          const OstraConfigEntry entry = entryOf(number, row);
          return compare(number, row.handle, remove(entry), model.remove(number));
        }
        [[fallthrough]];
      default:
        const std::uint64_t handle =
            found == model.rows.end() ? ++lastHandle_ : found->second.handle;
        const Model::Row row{handle, randomWish()};
        model.rows.insert_or_assign(number, row);
        compare(number, handle, write(entryOf(number, row)), model.write(number));
    }
  }

  void compareAll() {
    sm->verify();
    ASSERT_EQ(table->entries(), model.rows.size());
    ASSERT_EQ(cxHwConfig->flowEntries().size(), model.flows.size());
    for (const auto& [handle, flow] : model.flows) {
      compareFlow(handle);
    }
    for (Model::Number number = 0; number < keys; ++number) {
      compareIndexes(number);
    }
    ASSERT_EQ(statusInfo->dependentHandleToVrfMap().size(), model.waiting.size());
  }

 public:
  Model model;

 private:
  // A flow of Corvex goes without a write.
  void vanish() {
    if (!model.flows.empty()) {
      const auto flow =
          std::next(model.flows.begin(), static_cast<std::ptrdiff_t>(below(model.flows.size())));
      EXPECT_TRUE(cxHwConfig->flowEntryDel("flow-" + std::to_string(flow->first)));
      model.flows.erase(flow);
    }
  }
  // The service has answered for a VRF's first and last user.
  void forgetRoots() {
    const auto vrf = static_cast<VrfId>(below(vrfCount));
    vrfs->vrfCreatorRootHandleDel(vrf);
    vrfs->vrfDeletorRootHandleDel(vrf);
    statusInfo->dependentHandleToVrfMapDelAll();
    model.vrfs[vrf].creator.reset();
    model.vrfs[vrf].deletor.reset();
    model.waiting.clear();
  }

  void compare(Model::Number number, std::uint64_t handle, const std::string& said,
               const Model::Outcome& expected) {
    ASSERT_TRUE(expected.said.empty() ? said.empty() : said.starts_with(expected.said))
        << said << " instead of " << expected.said;
    compareFlow(handle);
    compareIndexes(number);
    for (VrfId vrf = 0; vrf < vrfCount; ++vrf) {
      ASSERT_EQ(model.vrfs[vrf],
                (VrfBooks{vrfs->vrfIdRefCount(vrf), vrfs->vrfCreatorRootHandle(vrf),
                          vrfs->vrfDeletorRootHandle(vrf)}));
    }
    ASSERT_EQ(isDependent(handle), expected.marked);
    ASSERT_EQ(dependentVrf(handle), waitingFor(handle));
    ASSERT_EQ(telemetry->total(), model.stamps);
    batchStatus->batchStatusEntryDel(handle);
  }
  [[nodiscard]] VrfId waitingFor(std::uint64_t handle) const {
    const auto waiting = model.waiting.find(handle);
    return waiting == model.waiting.end() ? noVrf : waiting->second;
  }
  void compareFlow(std::uint64_t handle) {
    const auto* const flow = cxFlow(handle);
    const auto expected = model.flows.find(handle);
    ASSERT_EQ(flow != nullptr, expected != model.flows.end());
    if (flow != nullptr) {
      const OpenFlowTable::Actions& actions = flow->actions();
      const Wish& wish = expected->second.wish;
      ASSERT_EQ(actions.setDscp(), wish.dscp);
      ASSERT_EQ(actions.has(OpenFlowTable::Action::vrf_), wish.vrf.has_value());
      ASSERT_EQ(actions.vrf(), wish.vrf.value_or(0));
      ASSERT_EQ(actions.group(), wish.group.value_or(0));
      ASSERT_EQ(actions.outputIntf().name(), "Ethernet2");
      ASSERT_EQ(flow->changeCount() > 0, expected->second.modified);
      ASSERT_EQ(flow->entryId(), handle + 1000);
    }
  }
  void compareIndexes(Model::Number number) {
    const OstraKey key = keyOf(number);
    const auto mapped = model.mapped.find(number);
    ASSERT_EQ(sm->flowKeyToEntryHandle(key),
              mapped == model.mapped.end() ? std::nullopt : std::optional{mapped->second});
    const auto vrf = model.vrfOf.find(number);
    ASSERT_EQ(sm->vrfId(key), vrf == model.vrfOf.end() ? noVrf : vrf->second);
  }

  std::mt19937_64 random_{42};
  Korm::Ptr<OpenFlowTable::HwStatus> status_;
  std::uint64_t lastHandle_ = 0;
};

TEST_F(FlowRandom, WritesDoWhatAControllerExpects) {
  constexpr int steps = TestSupport::threadSanitized ? 15'000 : 60'000;
  for (int count = 0; count < steps; ++count) {
    step();
    if (count % 500 == 0) {
      compareAll();
    }
    ASSERT_FALSE(HasFatalFailure()) << "at step " << count;
  }
  compareAll();
  EXPECT_GT(model.flows.size(), 10U);
  EXPECT_GT(model.stamps, static_cast<unsigned>(steps) / 6);
}

}  // namespace
}  // namespace OstraTest
