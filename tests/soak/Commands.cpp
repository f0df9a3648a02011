#include "tests/soak/Commands.h"

#include <arpa/inet.h>

#include <cstdio>

namespace Soak {
namespace {

constexpr std::array<FieldInfo, fieldCount_> fields{{
    {"ingress_port", Form::number_, 32},
    {"egress_port", Form::number_, 32},
    {"hdr.ethernet.src_addr", Form::mac_, 48},
    {"hdr.ethernet.dst_addr", Form::mac_, 48},
    {"hdr.ethernet.ether_type", Form::number_, 16},
    {"local_metadata.vlan_id", Form::number_, 16},
    {"hdr.ipv4_base.src_addr", Form::ip4_, 32},
    {"hdr.ipv4_base.dst_addr", Form::ip4_, 32},
    {"hdr.ipv4_base.dscp", Form::number_, 6},
    {"hdr.ipv4_base.protocol", Form::number_, 8},
    {"hdr.ipv4_base.ttl", Form::number_, 8},
    {"hdr.ipv6_base.src_addr", Form::ip6_, 128},
    {"hdr.ipv6_base.dst_addr", Form::ip6_, 128},
    {"hdr.ipv6_base.dscp", Form::number_, 6},
    {"hdr.ipv6_base.next_header", Form::number_, 8},
    {"hdr.ipv6_base.hop_limit", Form::number_, 8},
    {"hdr.arp.target_proto_addr", Form::ip4_, 32},
    {"hdr.icmp.type", Form::number_, 8},
    {"local_metadata.dscp", Form::number_, 6},
    {"local_metadata.next_header", Form::number_, 8},
    {"local_metadata.hop_limit", Form::number_, 8},
    {"local_metadata.l4_src_port", Form::number_, 16},
    {"local_metadata.l4_dst_port", Form::number_, 16},
    {"local_metadata.inner_l3_data", Form::number_, 8},
    {"local_metadata.isIpPacket", Form::flag_, 1},
}};

std::string ip6Text(const Bits& bits) {
  in6_addr address{};
  for (unsigned at = 0; at < 16; ++at) {
    const std::uint64_t half = at < 8 ? bits.high : bits.low;
    address.s6_addr[at] = static_cast<std::uint8_t>(half >> (56 - at % 8 * 8));
  }
  std::array<char, INET6_ADDRSTRLEN> out{};
  return ::inet_ntop(AF_INET6, &address, out.data(), out.size());
}

std::string valueText(Form form, const Bits& bits) {
  switch (form) {
    case Form::number_:
      return std::to_string(bits.low);
    case Form::mac_:
      return macText(bits.low);
    case Form::ip4_:
      return ip4Text(static_cast<std::uint32_t>(bits.low));
    case Form::ip6_:
      return ip6Text(bits);
    case Form::flag_:
      break;
  }
  return bits.low != 0 ? "true" : "false";
}

std::string keyText(const FlowKey& key) {
  std::string text = " table=" + std::to_string(key.table) +
                     " priority=" + std::to_string(key.priority) +
                     " table-type=" + std::to_string(key.tableType) +
                     " priority-group=" + std::to_string(key.priorityGroup);
  for (const MatchField& match : key.fields) {
    const FieldInfo& field = info(match.field);
    text.append(" ").append(field.name).append("=") += valueText(field.form, match.value);
    const std::uint64_t ones = field.bits >= 64 ? ~0ULL : (1ULL << field.bits) - 1;
    if (match.mask.low != ones || match.field == vlanId_ || field.form == Form::ip6_) {
      text += "&" + valueText(field.form, match.mask);
    }
  }
  return text;
}

template <class T>
void append(std::string& text, const char* name, const std::optional<T>& value) {
  if (value) {
    text += name + std::to_string(*value);
  }
}

std::string policerText(const Policer& policer) {
  constexpr std::array<const char*, 3> drops{",drop-green", ",drop-yellow", ",drop-red"};
  std::string text =
      " policer=" + std::to_string(policer.rate) + "," + std::to_string(policer.burst);
  for (std::size_t color = 0; color < drops.size(); ++color) {
    text += policer.drop[color] ? drops[color] : "";
  }
  return text;
}

std::string actionsText(const FlowActions& actions) {
  std::string text = " ->";
  append(text, " output=", actions.output);
  append(text, " vrf=", actions.vrf);
  append(text, " vlan=", actions.vlan);
  append(text, " group=", actions.group);
  append(text, " member=", actions.member);
  append(text, " traffic-class=", actions.trafficClass);
  append(text, " cpu-traffic-class=", actions.cpuTrafficClass);
  append(text, " set-dscp=", actions.setDscp);
  text += actions.setEthSrc ? " set-eth-src=" + macText(*actions.setEthSrc) : "";
  text += actions.setEthDst ? " set-eth-dst=" + macText(*actions.setEthDst) : "";
  text += actions.mirrorIngress ? " mirror-ingress=" + *actions.mirrorIngress : "";
  text += actions.mirrorEgress ? " mirror-egress=" + *actions.mirrorEgress : "";
  text += actions.policer ? policerText(*actions.policer) : "";
  text += actions.drop ? " drop" : "";
  text += actions.copyToCpu ? " copy-to-cpu" : "";
  text += actions.decTtl ? " dec-ttl" : "";
  return text;
}

std::string lineOf(const FlowWrite& write) {
  return std::string{text(write.op)} + " flow" + keyText(write.key) +
         (write.op == Op::delete_ ? "" : actionsText(write.actions));
}
std::string lineOf(const MemberWrite& write) {
  std::string line = std::string{text(write.op)} + " member " + std::to_string(write.id);
  if (write.op != Op::delete_) {
    line += " port=" + std::to_string(write.port) + " encap=" + std::to_string(write.encap);
    line += write.dstMac != 0 ? " dst-mac=" + macText(write.dstMac) : "";
    line += write.srcMac != 0 ? " src-mac=" + macText(write.srcMac) : "";
  }
  return line;
}
std::string lineOf(const GroupWrite& write) {
  std::string line = std::string{text(write.op)} + " group " + std::to_string(write.id);
  if (write.op != Op::delete_) {
    line += " members=";
    for (const std::uint32_t member : write.members) {
      line += (line.back() == '=' ? "" : ",") + std::to_string(member);
    }
  }
  return line;
}

std::string lineOf(const PortIs& port) {
  return (port.name.empty() ? "no port " : "port ") + std::to_string(port.id) +
         (port.name.empty() ? "" : " " + port.name);
}
std::string lineOf(const EncapIs& encap) {
  if (encap.removed) {
    return "no encap " + std::to_string(encap.id);
  }
  return "encap " + std::to_string(encap.id) + " src=" + ip4Text(encap.src) +
         " dst=" + ip4Text(encap.dst) + " ttl=" + std::to_string(encap.ttl) +
         " dscp=" + std::to_string(encap.dscp);
}
std::string lineOf(const HwMode& mode) { return mode.automatic ? "hw auto" : "hw manual"; }
std::string lineOf(const HwRun& /*run*/) { return "hw run"; }
std::string lineOf(const HwFlow& flow) {
  return flow.status ? "hw flow " + flow.name + " " + std::to_string(*flow.status)
                     : "hw remove flow " + flow.name;
}
std::string lineOf(const HwGroup& group) {
  const std::string id = std::to_string(group.id);
  return group.status ? "hw group " + id + " " + std::to_string(*group.status)
                      : "hw remove group " + id;
}
std::string lineOf(const HwCapacity& capacity) {
  return std::string{"hw capacity "} + (capacity.ofGroups ? "groups " : "flows ") +
         (capacity.room ? std::to_string(*capacity.room) : "none");
}
std::string lineOf(const HwCount& count) {
  return "hw count " + count.name + " " + std::to_string(count.packets) + " " +
         std::to_string(count.bytes) + " " + count.unit;
}
std::string lineOf(const HwPublish& publish) {
  return publish.published ? "hw publish" : "hw unpublish";
}
std::string lineOf(const CorvexFlow& flow) {
  return (flow.removed ? "corvex no flow " : "corvex flow ") + flow.name;
}
std::string lineOf(const Stop& /*stop*/) { return "stop"; }
std::string lineOf(const Start& start) { return start.bare ? "start bare" : "start"; }
std::string lineOf(const Resync& /*resync*/) { return "resync"; }
std::string lineOf(const Counter& counter) { return "counter " + std::to_string(counter.handle); }

Lines linesOf(const auto& command) { return {lineOf(command)}; }
Lines linesOf(const Batch& batch) {
  Lines lines;
  for (const Write& write : batch.writes) {
    lines.push_back(std::visit([](const auto& one) { return lineOf(one); }, write));
  }
  if (batch.bracketed || lines.size() != 1) {
    lines.insert(lines.begin(), "begin");
    lines.emplace_back("commit");
  }
  return lines;
}

}  // namespace

std::string_view text(Op op) {
  constexpr std::array<std::string_view, 4> names{"insert", "modify", "delete", "announce"};
  return names.at(static_cast<std::size_t>(op));
}

const FieldInfo& info(Field field) { return fields.at(field); }

std::string macText(std::uint64_t address) {
  std::array<char, 18> out{};
  const auto octet = [address](unsigned at) {
    return static_cast<unsigned>(address >> (40 - at * 8) & 0xFFU);
  };
  (void)std::snprintf(out.data(), out.size(), "%02x:%02x:%02x:%02x:%02x:%02x", octet(0), octet(1),
                      octet(2), octet(3), octet(4), octet(5));
  return out.data();
}

std::string ip4Text(std::uint32_t address) {
  const in_addr network{.s_addr = ::htonl(address)};
  std::array<char, INET_ADDRSTRLEN> out{};
  return ::inet_ntop(AF_INET, &network, out.data(), out.size());
}

Lines lines(const Command& command) {
  return std::visit([](const auto& one) { return linesOf(one); }, command);
}

}  // namespace Soak
