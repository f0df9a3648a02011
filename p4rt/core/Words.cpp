#include "p4rt/core/Words.h"

#include <algorithm>
#include <array>
#include <limits>
#include <type_traits>

#include "p4rt/core/Fault.h"
#include "platform/Bridging/Bridging.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/Vrf/Vrf.h"

namespace P4rt {
namespace {

using Korm::EthAddr;
using Korm::IpAddr;
using Ostra::OstraConfigEntry;
using Ostra::OstraKey;
using P4RuntimeRouting::NexthopInfo;

constexpr std::size_t fieldCount = static_cast<std::size_t>(Ostra::MatchFieldId::count_);
constexpr std::string_view vlanField = "local_metadata.vlan_id";

std::array<FieldWord, fieldCount> makeFieldWords() {
  std::array<FieldWord, fieldCount> words;
  const OstraKey key;
  std::size_t at = 0;
  key.forEachField([&](std::string_view name, const auto& field) {
    using T = std::remove_cvref_t<decltype(field.value)>;
    const bool port = std::is_same_v<T, P4Runtime::P4PortId>;
    const auto id = static_cast<Ostra::MatchFieldId>(at);
    words[at++] = {name, static_cast<int>(Ostra::matchFieldInfo(id).width.bits),
                   port || std::is_same_v<T, bool>};
  });
  return words;
}

template <std::size_t octets>
std::array<std::uint8_t, octets> octetsOf(const Bits& bits) {
  std::array<std::uint8_t, octets> result;
  Bits rest = bits;
  for (std::size_t at = octets; at-- > 0;) {
    result[at] = static_cast<std::uint8_t>(rest.low);
    rest.low = rest.low >> 8U | rest.high << 56U;
    rest.high >>= 8U;
  }
  return result;
}

template <class Octets>
Bits bitsOfOctets(const Octets& octets) {
  Bits bits;
  for (const std::uint8_t octet : octets) {
    bits.high = bits.high << 8U | bits.low >> 56U;
    bits.low = bits.low << 8U | octet;
  }
  return bits;
}

template <class T>
T valueOf(const Bits& bits, int width) {
  if constexpr (std::is_same_v<T, EthAddr>) {
    return {octetsOf<6>(bits)};
  } else if constexpr (std::is_same_v<T, IpAddr>) {
    return width == 128 ? IpAddr{Korm::Ip6Addr{octetsOf<16>(bits)}}
                        : IpAddr{Korm::Ip4Addr{octetsOf<4>(bits)}};
  } else {
    return static_cast<T>(bits.low);
  }
}

template <class T>
Bits bitsOf(const T& value) {
  if constexpr (std::is_same_v<T, EthAddr>) {
    return bitsOfOctets(value.octets);
  } else if constexpr (std::is_same_v<T, IpAddr>) {
    return value.family() == Korm::AddressFamily::ipv6_ ? bitsOfOctets(value.ip6().octets)
                                                        : bitsOfOctets(value.ip4().octets);
  } else {
    return {0, static_cast<std::uint64_t>(value)};
  }
}

void refuseAbove(std::string_view name, std::uint64_t value, std::uint64_t most) {
  if (value > most) {
    refuse(Code::outOfRange_, std::string{name} + ": " + std::to_string(value) +
                                  " is outside 0 to " + std::to_string(most));
  }
}

using Row = OstraConfigEntry;
constexpr std::uint64_t mostVlan = Bridging::VlanIdOrNone::max;

OpenFlowTable::TrafficClass trafficClassOf(const Bits& bits) {
  refuseAbove("a traffic class", bits.low, OpenFlowTable::TrafficClass::max);
  return OpenFlowTable::TrafficClass{static_cast<long long>(bits.low)};
}

Interface::IntfId interfaceOf(std::string_view name) {
  if (name.empty() || name.size() > Interface::IntfId::maxLength) {
    refuse(Code::outOfRange_, "the name of an interface has 1 to " +
                                  std::to_string(Interface::IntfId::maxLength) + " characters, '" +
                                  std::string{name} + "' has " + std::to_string(name.size()));
  }
  return Interface::IntfId{name};
}

std::uint32_t idOf(std::string_view name, const Bits& bits) {
  if (bits.isZero()) {
    refuse(Code::invalidArgument_, std::string{name} + " is 0, which is no id");
  }
  return static_cast<std::uint32_t>(bits.low);
}

template <auto member>
void putPolicer(Row& row, const Bits& bits, std::string_view /*text*/) {
  OpenFlowTable::PolicerConfig policer = row.actions.policer();
  policer.*member = bits.low;
  row.actions.policerIs(policer, true);
}

template <OpenFlowTable::PolicerColor color>
void putDrop(Row& row) {
  OpenFlowTable::PolicerConfig policer = row.actions.policer();
  policer.dropByColor[static_cast<std::size_t>(color)] = 1;
  row.actions.policerIs(policer, true);
}

template <auto mac>
void putMac(NexthopInfo& row, const Bits& bits) {
  row.*mac = P4RuntimeRouting::toLinkLayerWords({octetsOf<6>(bits)});
}

constexpr ParamWord flowWord(std::string_view name, int width,
                             void (*put)(Row& row, const Bits& bits, std::string_view text)) {
  return {name, width, ActionOf::flow_, put, nullptr};
}
constexpr ParamWord memberWord(std::string_view name, int width,
                               void (*put)(NexthopInfo& row, const Bits& bits)) {
  return {name, width, ActionOf::member_, nullptr, put};
}

constexpr std::array paramWords{
    flowWord("output_port", 32,
             [](Row& row, const Bits& bits, std::string_view) {
               row.outputPortIs(static_cast<std::uint32_t>(bits.low));
             }),
    flowWord("vrf_id", 24,
             [](Row& row, const Bits& bits, std::string_view) {
               refuseAbove("vrf_id", bits.low, Vrf::VrfIdMap::none - 1);
               row.vrfId = static_cast<std::uint32_t>(bits.low);
               row.vrfGiven = true;
             }),
    flowWord("vlan_id", 12,
             [](Row& row, const Bits& bits, std::string_view) {
               refuseAbove("vlan_id", bits.low, mostVlan);
               row.vlanId = static_cast<std::uint16_t>(bits.low);
               row.vlanGiven = true;
             }),
    flowWord("traffic_class", 8,
             [](Row& row, const Bits& bits, std::string_view) {
               row.actions.trafficClassIs(trafficClassOf(bits), true);
             }),
    flowWord("cpu_traffic_class", 8,
             [](Row& row, const Bits& bits, std::string_view) {
               row.actions.cpuTrafficClassIs(trafficClassOf(bits), true);
             }),
    flowWord("group_id", 32,
             [](Row& row, const Bits& bits, std::string_view) {
               row.groupId = idOf("group_id", bits);
               row.groupGiven = true;
             }),
    flowWord("member_id", 32,
             [](Row& row, const Bits& bits, std::string_view) {
               row.memberId = idOf("member_id", bits);
               row.memberGiven = true;
             }),
    flowWord("dscp", 6,
             [](Row& row, const Bits& bits, std::string_view) {
               row.actions.setDscpIs(static_cast<std::uint8_t>(bits.low), true);
             }),
    flowWord("eth_src", 48,
             [](Row& row, const Bits& bits, std::string_view) {
               row.actions.setEthSrcIs({octetsOf<6>(bits)}, true);
             }),
    flowWord("eth_dst", 48,
             [](Row& row, const Bits& bits, std::string_view) {
               row.actions.setEthDstIs({octetsOf<6>(bits)}, true);
             }),
    flowWord("policer_rate", 64, putPolicer<&OpenFlowTable::PolicerConfig::rate>),
    flowWord("policer_burst", 64, putPolicer<&OpenFlowTable::PolicerConfig::burst>),
    flowWord("mirror_ingress", 0,
             [](Row& row, const Bits&, std::string_view text) {
               row.actions.ingrMirrorIntfIs(interfaceOf(text), true);
             }),
    flowWord("mirror_egress", 0,
             [](Row& row, const Bits&, std::string_view text) {
               row.actions.egrMirrorIntfIs(interfaceOf(text), true);
             }),
    memberWord("port", 32,
               [](NexthopInfo& row, const Bits& bits) {
                 row.p4PortId = static_cast<std::uint32_t>(bits.low);
               }),
    memberWord("encap_id", 16,
               [](NexthopInfo& row, const Bits& bits) {
                 row.encapId = static_cast<std::uint16_t>(bits.low);
               }),
    memberWord("dst_mac", 48, putMac<&NexthopInfo::dstMac>),
    memberWord("src_mac", 48, putMac<&NexthopInfo::srcMac>),
};

constexpr std::array flagWords{
    FlagWord{"drop", false, [](Row& row) { row.actions.dropIs(true); }},
    FlagWord{"copy_to_cpu", false, [](Row& row) { row.actions.copyToCpuIs(true); }},
    FlagWord{"dec_ttl", false, [](Row& row) { row.actions.decTtlIs(true); }},
    FlagWord{"drop_green", true, putDrop<OpenFlowTable::PolicerColor::green_>},
    FlagWord{"drop_yellow", true, putDrop<OpenFlowTable::PolicerColor::yellow_>},
    FlagWord{"drop_red", true, putDrop<OpenFlowTable::PolicerColor::red_>},
};

template <class WordsOf>
const auto* findWord(const WordsOf& words, std::string_view name) noexcept {
  const auto found = std::find_if(words.begin(), words.end(),
                                  [name](const auto& word) { return word.name == name; });
  return found == words.end() ? nullptr : &*found;
}

}  // namespace

std::span<const FieldWord> fieldWords() noexcept {
  static const std::array<FieldWord, fieldCount> words = makeFieldWords();
  return words;
}

std::size_t findFieldWord(std::string_view name) noexcept {
  const auto words = fieldWords();
  const auto found = std::find_if(words.begin(), words.end(),
                                  [name](const FieldWord& word) { return word.name == name; });
  return static_cast<std::size_t>(found - words.begin());
}

void putField(OstraKey& key, std::size_t field, const Bits& value, const Bits& mask) {
  std::size_t at = 0;
  key.forEachField([&](std::string_view name, const auto& present, auto put) {
    using T = std::remove_cvref_t<decltype(present.value)>;
    if (at++ != field) {
      return;
    }
    const int width = fieldWords()[field].width;
    if (name == vlanField) {
      refuseAbove(name, value.low, mostVlan);
    }
    put(valueOf<T>(value, width), valueOf<T>(mask, width));
  });
}

std::size_t givenFields(const OstraKey& key, std::span<FieldValue> fields) {
  std::size_t at = 0;
  std::size_t count = 0;
  key.forEachField([&](std::string_view /*name*/, const auto& field) {
    if (field.given) {
      fields[count++] = {at, bitsOf(field.value), bitsOf(field.mask)};
    }
    ++at;
  });
  return count;
}

const ParamWord* findParamWord(std::string_view name) noexcept {
  return findWord(paramWords, name);
}

const FlagWord* findFlagWord(std::string_view name) noexcept { return findWord(flagWords, name); }

}  // namespace P4rt
