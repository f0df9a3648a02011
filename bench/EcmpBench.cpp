// Groups, members and encapsulation entries.

#include <vector>

#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/StatePaths.h"
#include "bench/Entries.h"
#include "bench/Measure.h"
#include "platform/P4Runtime/HandleMgr.h"

namespace Bench {
namespace {

using P4Runtime::MemberOrGroupId;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::NexthopInfo;

// Counts the rewrites of Corvex groups.
class RewriteCounter final : public Korm::Notifiee<const OpenFlowTable::GroupId&> {
 public:
  explicit RewriteCounter(OpenFlowTable::CorvexHwConfig& config) {
    config.groupEntryNotifiees().attach(*this);
  }
  void onAttribute(const OpenFlowTable::GroupId& /*id*/) override { ++rewrites; }
  std::size_t rewrites = 0;
};

// The library's ECMP side. The benchmark fills its tables.
struct EcmpSide {
  EcmpSide() { mapPorts(*portMapping); }

  void encap(NexthopGroup::EncapId id, std::uint8_t ttl = 64) {
    NexthopGroup::EncapEntry entry;
    entry.encapId = id;
    entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    entry.ttl = ttl;
    entry.src = {{192, 0, 2, 1}};
    entry.dst = {{198, 51, 100, static_cast<std::uint8_t>(id)}};
    encaps->entryIs(entry);
  }
  void member(MemberOrGroupId id, NexthopGroup::EncapId encapId) {
    NexthopInfo row;
    row.entryHandle = std::uint64_t{1'000'000} + id;
    row.memberId = id;
    row.p4PortId = 1 + id % ports;
    row.dstMac = {0x0200, 0, static_cast<std::uint16_t>(id)};
    row.encapId = encapId;
    members->entryIs(row);
  }
  void group(MemberOrGroupId id, const std::vector<MemberOrGroupId>& list) {
    EcmpMemberList row;
    row.entryHandle = id;
    row.groupId = id;
    row.membersIs(list);
    groups->entryIs(row);
  }
  void start() {
    sm = Ostra::ostraEcmpGroupSmFactory(hwConfig, groups, members, encaps, portMapping, validation,
                                        batchStatus, handles);
  }

  Korm::Ptr<OpenFlowTable::CorvexHwConfig> hwConfig =
      Korm::makePtr<OpenFlowTable::CorvexHwConfig>(Ostra::p4rtName);
  Korm::Ptr<P4RuntimeRouting::EcmpGroup> groups =
      Korm::makePtr<P4RuntimeRouting::EcmpGroup>("groups");
  Korm::Ptr<P4RuntimeRouting::EcmpMember> members =
      Korm::makePtr<P4RuntimeRouting::EcmpMember>("members");
  Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encaps =
      Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("encaps");
  Korm::Ptr<P4RuntimeConfig::PortMappingStatus> portMapping =
      Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  Korm::Ptr<P4Runtime::BatchStatus> batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  Korm::Ptr<P4Runtime::ValidationHelper> validation =
      Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus);
  Korm::Ptr<P4Runtime::P4HandleMgr> handles = Korm::makePtr<P4Runtime::P4HandleMgr>();
  Korm::Ptr<Ostra::OstraEcmpGroupSm> sm;
};

std::vector<MemberOrGroupId> memberIds(std::size_t count, MemberOrGroupId first) {
  std::vector<MemberOrGroupId> ids(count);
  std::iota(ids.begin(), ids.end(), first);
  return ids;
}

// Rebuilds a group of MEMBERS members, and reports the time of one bucket.
void groupRebuild(benchmark::State& state) {
  const auto members = argument(state);
  EcmpSide side;
  side.encap(1);
  for (const MemberOrGroupId id : memberIds(members, 1)) {
    side.member(id, 1);
  }
  std::vector<MemberOrGroupId> list = memberIds(members, 1);
  std::shuffle(list.begin(), list.end(), std::mt19937{1});
  side.group(7, list);
  side.start();
  const std::size_t passes = 100'000 / members + 1;
  for (auto _ : state) {
    RewriteCounter counter{*side.hwConfig};
    timeEach(state, passes * members, [&] {
      for (std::size_t pass = 0; pass < passes; ++pass) {
        side.sm->handleEcmpGroup(7);
      }
    });
    require(counter.rewrites == passes, "the group is rewritten each time");
    require(side.hwConfig->groupEntry(7)->buckets() == members, "each member has its bucket");
  }
}

// Changes a member that is listed in each of GROUPS groups of MEMBERS members.
void memberChange(benchmark::State& state) {
  const auto groups = argument(state);
  const auto members = argument(state, 1);
  EcmpSide side;
  side.encap(1);
  for (const MemberOrGroupId id : memberIds(groups * members, 1)) {
    side.member(id, 1);
  }
  for (std::size_t group = 0; group < groups; ++group) {
    auto list = memberIds(members, static_cast<MemberOrGroupId>(group * members + 1));
    list.back() = 1;
    side.group(static_cast<MemberOrGroupId>(group + 1), list);
  }
  side.start();
  for (auto _ : state) {
    RewriteCounter counter{*side.hwConfig};
    timeEach(state, 1, [&] { side.sm->handleNexthopInfo(1); });
    require(counter.rewrites == groups + 1, "the member and its groups are rewritten");
  }
}

// Changes a member of one group of 1,024, beside 1,000 groups of 16 that do not list it.
void memberChangeAmongOthers(benchmark::State& state) {
  constexpr std::size_t others = 1'000;
  constexpr MemberOrGroupId changed = 100'000;
  EcmpSide side;
  side.encap(1);
  for (const MemberOrGroupId id : memberIds(1'024, changed)) {
    side.member(id, 1);
  }
  for (const MemberOrGroupId id : memberIds(16 * others, 1)) {
    side.member(id, 1);
  }
  side.group(others + 1, memberIds(1'024, changed));
  for (MemberOrGroupId group = 1; group <= others; ++group) {
    side.group(group, memberIds(16, (group - 1) * 16 + 1));
  }
  side.start();
  for (auto _ : state) {
    RewriteCounter counter{*side.hwConfig};
    timeEach(state, 1, [&] { side.sm->handleNexthopInfo(changed); });
    require(counter.rewrites == 2, "the member and its group are rewritten");
  }
}

// Changes an encapsulation entry that MEMBERS members use, each in a group of its own.
void encapChange(benchmark::State& state) {
  const auto members = argument(state);
  EcmpSide side;
  side.encap(1);
  for (const MemberOrGroupId id : memberIds(members, 1)) {
    side.member(id, 1);
    side.group(id, {id});
  }
  side.start();
  for (auto _ : state) {
    RewriteCounter counter{*side.hwConfig};
    timeEach(state, 1, [&] { side.sm->handleEncapEntry(1); });
    require(counter.rewrites == 2 * members, "each member and its group are rewritten");
  }
}

const bool registered = [] {
  const auto ecmp = [](const char* name, void (*function)(benchmark::State&)) {
    return benchmark::RegisterBenchmark(name, function)->UseManualTime();
  };
  for (const int members : {1, 16, 64, 1'024}) {
    ecmp("BM_GroupRebuild", groupRebuild)->Arg(members)->Iterations(3);
  }
  for (const int groups : {10, 100, 1'000}) {
    ecmp("BM_MemberChange", memberChange)
        ->Args({groups, 16})
        ->Iterations(20)
        ->Unit(benchmark::kMicrosecond);
  }
  ecmp("BM_MemberChange/oneOf1001/1024", memberChangeAmongOthers)
      ->Iterations(20)
      ->Unit(benchmark::kMicrosecond);
  for (const int members : {1, 16, 256}) {
    ecmp("BM_EncapChange", encapChange)
        ->Arg(members)
        ->Iterations(50)
        ->Unit(benchmark::kMicrosecond);
  }
  return true;
}();

}  // namespace
}  // namespace Bench
