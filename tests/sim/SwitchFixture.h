// A switch without a command language: the hosting service with the library running, and the
// hardware agent.
//
// What comes of writes is kept as lines: "insert flow 1 done 0", "insert member 5 as 2 done 15
// <message>", "modify flow 1 pending", "delete flow rejected <message>"; reports as "1 code 0",
// with the message behind.
#pragma once

#include "platform/Korm/Activity.h"
#include "platform/Korm/Clock.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "tests/Testing.h"

namespace SwitchTest {

using namespace TestSupport;

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;
using Sim::Op;
using Sim::Update;

using Lines = Texts;

inline constexpr OpenFlowTable::GroupId memberBase = 4294967296;

// A flow that matches IPv4 packets to 10.0.0.0 + number.
struct Flow {
  std::uint32_t number = 0;
  std::optional<Vrf::VrfIdMap::VrfId> vrf{};
  std::optional<std::uint32_t> group{};
  std::optional<P4Runtime::P4PortId> output{};    // 0 is an entry error before the VRF is booked
  std::optional<std::uint8_t> cpuTrafficClass{};  // 17 is a range error after the VRF is booked
  std::int32_t priority = 10;                     // 70000 is a range error after the key is mapped
  std::uint8_t table = 0;
};

inline Ostra::OstraConfigEntry rowOf(const Flow& flow) {
  Ostra::OstraConfigEntry row;
  row.flowKey.priorityIs(flow.priority);
  row.flowKey.etherTypeIs(0x0800, 0xFFFF);
  const auto octet = [&](unsigned shift) {
    return static_cast<std::uint8_t>(flow.number >> shift & 0xFFU);
  };
  row.flowKey.ip4DstIs(Korm::IpAddr{Korm::Ip4Addr{{10, octet(16), octet(8), octet(0)}}},
                       Korm::IpAddr::prefixMask(Korm::AddressFamily::ipv4_, 32));
  if (flow.vrf) {
    row.vrfGiven = true;
    row.vrfId = *flow.vrf;
  }
  if (flow.group) {
    row.groupGiven = true;
    row.groupId = *flow.group;
  }
  if (flow.output) {
    row.outputPortIs(*flow.output);
  }
  if (flow.cpuTrafficClass) {
    row.actions.uncheckedIs<OpenFlowTable::Action::cpuTrafficClass_>(*flow.cpuTrafficClass, true);
  }
  return row;
}

inline Update insert(const Flow& flow) {
  return Update::flow(Op::insert_, flow.table, rowOf(flow));
}
inline Update modify(const Flow& flow) {
  return Update::flow(Op::modify_, flow.table, rowOf(flow));
}
inline Update remove(const Flow& flow) {
  return Update::flow(Op::delete_, flow.table, rowOf(flow));
}

struct Member {
  std::uint32_t id = 0;
  P4Runtime::P4PortId port = 1;
  NexthopGroup::EncapId encap = 9;
};

inline Update write(Op op, const Member& member) {
  P4RuntimeRouting::NexthopInfo row;
  row.memberId = member.id;
  row.p4PortId = member.port;
  row.encapId = member.encap;
  return Update::member(op, row);
}

struct Group {
  std::uint32_t id = 0;
  std::vector<P4Runtime::MemberOrGroupId> members{};
  std::uint32_t storedCount = 0;  // of members, if it is to be another than theirs
};

inline Update write(Op op, const Group& group) {
  P4RuntimeRouting::EcmpMemberList row;
  row.groupId = group.id;
  row.membersIs(group.members);
  if (group.storedCount != 0) {
    row.lists.storedCountsIs(group.storedCount, 0);
  }
  return Update::group(op, row);
}

inline Lines linesOf(const std::vector<Sim::Result>& results) {
  Lines lines;
  for (const Sim::Result& result : results) {
    std::string line{text(result.op)};
    line.append(" ").append(text(result.kind));
    if (result.kind != Sim::Kind::flow_) {
      line += " " + std::to_string(result.id) + " as";
    }
    if (result.handle != 0) {
      line += " " + std::to_string(result.handle);
    }
    line.append(" ").append(text(result.state));
    if (result.state == Sim::State::done_) {
      line += " " + std::to_string(static_cast<std::uint32_t>(result.code));
    }
    lines.push_back(result.message.empty() ? line : line + " " + result.message);
  }
  return lines;
}

inline const std::string badPriority = "Priority::value < -1 or > Priority::max not allowed";

class Switch : public testing::Test {
 protected:
  Switch() {
    Korm::clockIs([] { return 1000.0; });
    service.portIs(1, Interface::IntfId{"Ethernet1"});
    encap(9);
    service.start();
  }
  ~Switch() override {
    Korm::activity().run();
    service.verify();
    agent.verify();
    Korm::clockIs(nullptr);
  }

  void encap(NexthopGroup::EncapId id) {
    NexthopGroup::EncapEntry entry;
    entry.encapId = id;
    entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    EXPECT_EQ(service.encapIs(entry), std::nullopt);
  }

  Lines apply(const std::vector<Update>& batch) { return linesOf(service.apply(batch)); }
  Lines reports() {
    Lines lines;
    for (const Sim::Report& report : service.takeReports()) {
      std::string line = std::to_string(report.handle) + " code " +
                         std::to_string(static_cast<std::uint32_t>(report.code));
      lines.push_back(report.message.empty() ? line : line + " " + report.message);
    }
    return lines;
  }

  // The names of the Corvex flows.
  [[nodiscard]] Lines flows() const {
    Lines names;
    for (const Sim::FlowView& view : service.flows()) {
      names.push_back(*view.name);
    }
    return names;
  }
  // "flow-1 1"; then "group 7 0".
  [[nodiscard]] Lines hardware() const {
    Lines lines;
    for (const auto& flow : agent.publishedFlows()) {
      lines.push_back(*flow.name + " " + std::to_string(static_cast<std::uint32_t>(flow.status)));
    }
    for (const auto& group : agent.publishedGroups()) {
      lines.push_back("group " + std::to_string(group.id) + " " +
                      std::to_string(static_cast<std::uint32_t>(group.status)));
    }
    return lines;
  }
  // "5: 2 users, creator 1, deletor 0"; then "1 waits for 5".
  [[nodiscard]] Lines vrfs() const {
    Lines lines;
    for (const Sim::VrfView& view : service.vrfs()) {
      lines.push_back(std::to_string(view.vrf) + ": " + std::to_string(view.refCount) +
                      " users, creator " + std::to_string(view.creator) + ", deletor " +
                      std::to_string(view.deletor));
    }
    for (const Sim::DependentView& view : service.dependents()) {
      lines.push_back(std::to_string(view.handle) + " waits for " + std::to_string(view.vrf));
    }
    return lines;
  }

 public:
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
};

}  // namespace SwitchTest
