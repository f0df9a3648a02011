#include "cli/language/FlowParser.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <limits>
#include <string>
#include <type_traits>

#include "cli/language/ValueWords.h"
#include "platform/Bridging/Bridging.h"

namespace Cli {
namespace {

using OpenFlowTable::Actions;
using Ostra::OstraConfigEntry;
using Ostra::OstraKey;

constexpr std::string_view arrow = "->";

template <auto setter>
constexpr auto putInKey = [](FlowWrite& flow, std::string_view value, std::string_view name) {
  using Number = decltype(OstraKey{}.priority());
  if constexpr (std::is_same_v<decltype(setter), void (OstraKey::*)(Number) noexcept>) {
    (flow.entry.flowKey.*setter)(parseNumber<Number>(value, name));
  } else {
    (flow.entry.flowKey.*setter)(parseNumber<std::uint32_t>(value, name));
  }
};

constexpr std::array placementWords{
    ValueWord<FlowWrite>{"priority", putInKey<&OstraKey::priorityIs>},
    ValueWord<FlowWrite>{"table",
                         [](FlowWrite& flow, std::string_view value, std::string_view name) {
                           flow.table = parseNumber<std::uint8_t>(value, name, maxFlowTable);
                         }},
    ValueWord<FlowWrite>{"table-type", putInKey<&OstraKey::tableTypeIs>},
    ValueWord<FlowWrite>{"priority-group", putInKey<&OstraKey::priorityGroupTypeIs>},
};
constexpr std::size_t priorityWord = 0;

OpenFlowTable::PolicerConfig parsePolicer(std::string_view text, std::string_view /*name*/) {
  static constexpr std::array<std::string_view, 3> drops{"drop-green", "drop-yellow", "drop-red"};
  static constexpr std::string_view syntax =
      "policer=RATE,BURST[,drop-green][,drop-yellow][,drop-red]";
  if (std::count(text.begin(), text.end(), ',') == 0 || text.ends_with(',')) {
    throwUnexpected("policer=" + std::string{text}, syntax);
  }
  const auto next = [&text] {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
  };
  OpenFlowTable::PolicerConfig policer;
  policer.rate = parseNumber<std::uint64_t>(next(), "the policer's rate");
  policer.burst = parseNumber<std::uint64_t>(next(), "the policer's burst");
  while (!text.empty()) {
    const std::string_view part = next();
    const auto* const drop = std::find(drops.begin(), drops.end(), part);
    if (drop == drops.end()) {
      throwUnexpected(part, syntax, nearMatch(part, drops));
    }
    std::uint8_t& color = policer.dropByColor[static_cast<std::size_t>(drop - drops.begin())];
    if (std::exchange(color, std::uint8_t{1}) != 0) {
      throwTwice(part);
    }
  }
  return policer;
}

template <auto setter, auto parse>
constexpr auto putAction =
    [](OstraConfigEntry& entry, std::string_view value, std::string_view name) {
      (entry.actions.*setter)(parse(value, name), true);
    };
constexpr auto byte = [](std::string_view text, std::string_view what) {
  return parseNumber<std::uint8_t>(text, what);
};

// For the values that stand beside the action set, each with a flag of its own.
template <auto member, auto given>
constexpr auto putGiven =
    [](OstraConfigEntry& entry, std::string_view value, std::string_view name) {
      putNumber<member>(entry, value, name);
      entry.*given = true;
    };

using ActionWord = ValueWord<OstraConfigEntry>;
constexpr std::array actionWords{
    ActionWord{"output",
               [](OstraConfigEntry& entry, std::string_view value, std::string_view name) {
                 entry.outputPortIs(parseNumber<P4Runtime::P4PortId>(value, name));
               }},
    ActionWord{"vrf", putGiven<&OstraConfigEntry::vrfId, &OstraConfigEntry::vrfGiven>},
    ActionWord{"vlan", putGiven<&OstraConfigEntry::vlanId, &OstraConfigEntry::vlanGiven>},
    ActionWord{"group", putGiven<&OstraConfigEntry::groupId, &OstraConfigEntry::groupGiven>},
    ActionWord{"member", putGiven<&OstraConfigEntry::memberId, &OstraConfigEntry::memberGiven>},
    ActionWord{"traffic-class", putAction<&Actions::uncheckedTrafficClassIs, byte>},
    ActionWord{"cpu-traffic-class", putAction<&Actions::uncheckedCpuTrafficClassIs, byte>},
    ActionWord{"mirror-ingress", putAction<&Actions::ingrMirrorIntfIs, &parseInterface>},
    ActionWord{"mirror-egress", putAction<&Actions::egrMirrorIntfIs, &parseInterface>},
    ActionWord{"set-dscp", putAction<&Actions::setDscpIs, byte>},
    ActionWord{"set-eth-src", putAction<&Actions::setEthSrcIs, &parseMac>},
    ActionWord{"set-eth-dst", putAction<&Actions::setEthDstIs, &parseMac>},
    ActionWord{"policer", putAction<&Actions::policerIs, &parsePolicer>},
};

struct FlagWord {
  std::string_view name;
  void (Actions::*set)(bool present) noexcept;
};
constexpr std::array flagWords{
    FlagWord{"drop", &Actions::dropIs},
    FlagWord{"copy-to-cpu", &Actions::copyToCpuIs},
    FlagWord{"dec-ttl", &Actions::decTtlIs},
};

// A field holds an address of any family; the header that it stands in has one.
Korm::AddressFamily familyOf(std::string_view field) {
  return field.find("ipv6") == std::string_view::npos ? Korm::AddressFamily::ipv4_
                                                      : Korm::AddressFamily::ipv6_;
}

// All ones, and no more of them than the field has bits: a VLAN id has twelve in its sixteen.
template <std::unsigned_integral T>
T exactMaskOf(std::string_view field) {
  return field == "local_metadata.vlan_id" ? static_cast<T>(Bridging::VlanIdOrAnyOrNone::max)
                                           : std::numeric_limits<T>::max();
}

template <class T>
ValueAndMask<T> parseField(std::string_view text, std::string_view name) {
  if constexpr (std::is_same_v<T, bool>) {
    return parseMaskedBool(text, name);
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return parseMaskedMac(text, name);
  } else if constexpr (std::is_same_v<T, Korm::IpAddr>) {
    return parseMaskedIp(text, name, familyOf(name));
  } else {
    return parseMaskedNumber<T>(text, name, exactMaskOf<T>(name));
  }
}

// Whether there is such a field.
bool applyField(const Assignment& word, OstraKey& key) {
  bool found = false;
  key.forEachField([&](std::string_view name, const auto& field, auto put) {
    if (found || name != word.name) {
      return;
    }
    found = true;
    requireValue(word);
    if (field.given) {
      throwTwice(word.name);
    }
    const auto parsed = parseField<std::remove_cvref_t<decltype(field.value)>>(word.value, name);
    put(parsed.value, parsed.mask);
  });
  return found;
}

template <class Visit>
void forEachKeyWord(Visit visit) {
  for (const auto& known : placementWords) {
    visit(known.name);
  }
  const OstraKey key;
  key.forEachField([&visit](std::string_view name, const auto& /*field*/) { visit(name); });
}

template <class Visit>
void forEachActionWord(Visit visit) {
  for (const auto& known : actionWords) {
    visit(known.name);
  }
  for (const auto& known : flagWords) {
    visit(known.name);
  }
}

// A word of the key: it may also be one of the actions, which stand elsewhere.
[[noreturn]] void throwNotInKey(std::string_view read, std::string_view name) {
  NearMatch near{name};
  forEachActionWord([&](std::string_view action) {
    if (name == action) {
      throwUnexpected(read, "actions behind '->'");
    }
  });
  forEachKeyWord([&near](std::string_view word) { near.consider(word); });
  throwUnexpected(read, "a match field, or one of priority=, table=, table-type=, priority-group=",
                  near.match());
}

[[noreturn]] void throwNotAnAction(std::string_view read, std::string_view name) {
  NearMatch near{name};
  forEachKeyWord([&](std::string_view word) {
    if (name == word) {
      throwUnexpected(read, "an action; what the flow matches stands before '->'");
    }
  });
  forEachActionWord([&near](std::string_view action) { near.consider(action); });
  throwUnexpected(read, "an action", near.match());
}

// Up to the arrow or the end.
void readKey(Words& words, FlowWrite& flow) {
  SeenWords<placementWords.size()> seen;
  while (!words.done() && words.peek() != arrow) {
    const std::string_view read = words.take(arrow);
    const Assignment word = splitAssignment(read);
    if (!applyWord(placementWords, seen, word, flow) && !applyField(word, flow.entry.flowKey)) {
      throwNotInKey(read, word.name);
    }
  }
  if (!seen.has(priorityWord)) {
    throwUnexpected(words.peek(), "priority=");
  }
}

void readActions(Words& words, OstraConfigEntry& entry) {
  SeenWords<actionWords.size()> seenValues;
  SeenWords<flagWords.size()> seenFlags;
  while (!words.done()) {
    const std::string_view read = words.take("an action");
    const Assignment word = splitAssignment(read);
    if (applyWord(actionWords, seenValues, word, entry)) {
      continue;
    }
    const FlagWord* const flag = findWord(flagWords, word.name);
    if (flag == nullptr) {
      throwNotAnAction(read, word.name);
    }
    if (word.assigned) {
      throwUnexpected(read, quoted(flag->name) + " without a value");
    }
    seenFlags.add(flagWords, *flag);
    (entry.actions.*flag->set)(true);
  }
}

}  // namespace

FlowWrite parseFlow(Words& words) {
  FlowWrite flow;
  readKey(words, flow);
  if (!words.takeIf(arrow)) {
    throwUnexpected({}, "'->' and the actions");
  }
  readActions(words, flow.entry);
  return flow;
}

FlowWrite parseFlowKey(Words& words) {
  FlowWrite flow;
  readKey(words, flow);
  if (!words.done()) {
    throwUnexpected(words.peek(), "the end of the line, since a delete takes just the key");
  }
  return flow;
}

}  // namespace Cli
