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

std::string policerText(const Policer& policer) {
  constexpr std::array<const char*, 3> drops{",drop-green", ",drop-yellow", ",drop-red"};
  std::string text =
      " policer=" + std::to_string(policer.rate) + "," + std::to_string(policer.burst);
  for (std::size_t color = 0; color < drops.size(); ++color) {
    text += policer.drop[color] ? drops[color] : "";
  }
  return text;
}

}  // namespace

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

std::string actionsText(const FlowActions& actions) {
  std::string text = " ->";
  const auto append = [&text](const char* name, const auto& value) {
    if (value) {
      text += std::string{" "} + name + "=" + std::to_string(*value);
    }
  };
  append("output", actions.output);
  append("vrf", actions.vrf);
  append("vlan", actions.vlan);
  append("group", actions.group);
  append("member", actions.member);
  append("traffic-class", actions.trafficClass);
  append("cpu-traffic-class", actions.cpuTrafficClass);
  append("set-dscp", actions.setDscp);
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

std::string text(Op op) {
  constexpr std::array<const char*, 4> names{"insert", "modify", "delete", "announce"};
  return names.at(static_cast<std::size_t>(op));
}

const FieldInfo& info(Field field) { return fields.at(field); }

std::string macText(std::uint64_t address) {
  std::string text;
  for (unsigned shift = 48; shift > 0; shift -= 8) {
    std::array<char, 4> octet{};
    (void)std::snprintf(octet.data(), octet.size(),
                        "%02x:", static_cast<unsigned>(address >> (shift - 8) & 0xFFU));
    text += octet.data();
  }
  text.pop_back();
  return text;
}

std::string ip4Text(std::uint32_t address) {
  const in_addr network{.s_addr = ::htonl(address)};
  std::array<char, INET_ADDRSTRLEN> out{};
  return ::inet_ntop(AF_INET, &network, out.data(), out.size());
}

Lines lines(const Command& command) {
  Lines lines;
  for (const Step& step : command.steps) {
    lines.push_back(step.line);
  }
  if (command.isBatch && (command.bracketed || lines.size() != 1)) {
    lines.insert(lines.begin(), "begin");
    lines.emplace_back("commit");
  }
  return lines;
}

}  // namespace Soak
