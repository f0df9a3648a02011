#include "cli/output/TextValues.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <limits>
#include <optional>
#include <utility>

#include "cli/EntryReferences.h"
#include "platform/Korm/Text.h"

namespace Cli {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::GroupType;
using P4Runtime::ErrorCode;

template <class Enum, std::size_t count>
std::string numberAndWords(const Korm::EnumTexts<Enum, count>& texts, Enum value) {
  return std::to_string(static_cast<std::uint32_t>(value))
      .append(" ")
      .append(Korm::enumText(texts, value, "unknown"));
}

// The length of a mask of leading ones, or nothing for any other mask.
template <std::size_t size>
std::optional<unsigned> prefixLength(const std::array<std::uint8_t, size>& mask) {
  unsigned length = 0;
  for (const std::uint8_t octet : mask) {
    length += static_cast<unsigned>(std::countl_one(octet));
  }
  unsigned position = 0;
  for (const std::uint8_t octet : mask) {
    const unsigned ones = std::min(length - std::min(length, position), 8U);
    if (octet != static_cast<std::uint8_t>(0xFF00U >> ones)) {
      return std::nullopt;
    }
    position += 8;
  }
  return length;
}

template <std::size_t size>
std::string maskedAddress(const std::string& value, const std::array<std::uint8_t, size>& mask,
                          const std::string& maskText) {
  const auto length = prefixLength(mask);
  if (length == size * 8) {
    return value;
  }
  return length ? value + "/" + std::to_string(*length) : value + "&" + maskText;
}

// `width` is the field's. Ether types are printed in hexadecimal, as people know them.
template <class T>
std::string maskedText(const T& value, const T& mask, Ostra::MatchWidth width, bool isEtherType) {
  if constexpr (std::is_same_v<T, bool>) {
    return std::string{value ? "true" : "false"} + (mask ? "" : "&false");
  } else if constexpr (std::is_integral_v<T>) {
    if (mask != width.allOnes<T>()) {
      return Korm::hexNumber(value) + "&" + Korm::hexNumber(mask);
    }
    return isEtherType ? Korm::hexNumber(value) : std::to_string(value);
  } else if constexpr (std::is_same_v<T, Korm::IpAddr>) {
    return value.family() == Korm::AddressFamily::ipv6_
               ? maskedText(value.ip6(), mask.ip6(), width, false)
               : maskedText(value.ip4(), mask.ip4(), width, false);
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return mask == Korm::EthAddr::allOnes() ? value.text() : value.text() + "&" + mask.text();
  } else {
    return maskedAddress(value.text(), mask.octets, mask.text());
  }
}

template <std::integral T>
std::string valueText(T value) {
  return std::to_string(value);
}
std::string valueText(const Interface::IntfId& intf) {
  return intf.empty() ? "(none)" : std::string{intf.name()};
}
std::string valueText(const Korm::EthAddr& address) { return address.text(); }
std::string valueText(const OpenFlowTable::FixedBlock& block) {
  return Korm::hexText(block.data(), block.size());
}
std::string valueText(OpenFlowTable::L3PacketType type) {
  using OpenFlowTable::L3PacketType;
  static constexpr Korm::EnumTexts<L3PacketType, 4> words{{
      {L3PacketType::ip_, "ip"},
      {L3PacketType::nonIp_, "non-ip"},
      {L3PacketType::ipv4_, "ipv4"},
      {L3PacketType::ipv6_, "ipv6"},
  }};
  const std::string_view text = Korm::enumText(words, type);
  return text.empty() ? std::to_string(static_cast<unsigned>(type)) : std::string{text};
}
std::string valueText(const OpenFlowTable::EncapInfo& encap) {
  return encapTypeText(encap.type) + "(" + encap.src.text() + "->" + encap.dst.text() +
         ",ttl=" + std::to_string(encap.ttl) + ",dscp=" + std::to_string(encap.dscp) + ")";
}
std::string valueText(const OpenFlowTable::PolicerConfig& policer) {
  std::string text = std::to_string(policer.rate) + "," + std::to_string(policer.burst);
  for (const std::string_view color : droppedColors(policer)) {
    text.append(",drop-").append(color);
  }
  return text;
}

class Assignments {
 public:
  explicit Assignments(std::string_view none) : none_{none} {}

  void add(std::string_view name, const std::string& value) {
    addFlag(name);
    text_.append("=").append(value);
  }
  void addFlag(std::string_view name) { text_.append(text_.empty() ? "" : " ").append(name); }
  [[nodiscard]] std::string text() const { return text_.empty() ? std::string{none_} : text_; }

 private:
  const std::string_view none_;
  std::string text_;
};

void addActions(const OpenFlowTable::Actions& actions, Assignments& result) {
  actions.forEachPresent([&result](std::string_view name, const auto& value) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(value)>, bool>) {
      result.addFlag(name);
    } else {
      result.add(name, valueText(value));
    }
  });
}

}  // namespace

std::string matchText(const OpenFlowTable::Match& match) {
  Assignments result{"any"};
  match.forEachSet([&result](const OpenFlowTable::MatchFieldInfo& info, const auto& field) {
    if constexpr (requires { field.mask; }) {
      result.add(info.name, maskedText(field.value, field.mask, info.bits,
                                       info.field == OpenFlowTable::Match::Field::etherType_));
    } else {
      result.add(info.name, valueText(field));
    }
  });
  return result.text();
}

std::string actionsText(const OpenFlowTable::Actions& actions) {
  Assignments result{"none"};
  addActions(actions, result);
  return result.text();
}

std::string keyText(const Ostra::OstraKey& key) {
  Assignments result{"any"};
  key.forEachGiven([&result](auto id, const auto& field) {
    result.add(id, maskedText(field.value, field.mask, Ostra::matchFieldInfo(id).width,
                              id == Ostra::MatchFieldId::etherType_));
  });
  return result.text();
}

std::string entryActionsText(const Ostra::OstraConfigEntry& entry) {
  Assignments result{"none"};
  forEachReference([&](const auto& reference) {
    if (reference.given(entry)) {
      result.add(reference.word, std::to_string(entry.*reference.number));
    }
  });
  OpenFlowTable::Actions actions = entry.actions;
  actions.outputIntfIs({}, false);  // shown by its port
  addActions(actions, result);
  return result.text();
}

std::string flowStatusText(FlowStatus status) {
  static constexpr Korm::EnumTexts<FlowStatus, 14> words{{
      {FlowStatus::pending_, "pending"},
      {FlowStatus::programmed_, "programmed"},
      {FlowStatus::programmedInSoftware_, "programmed in software"},
      {FlowStatus::programming_, "being programmed"},
      {FlowStatus::waitingForGroup_, "waiting for a group"},
      {FlowStatus::matchNotSupported_, "match not supported"},
      {FlowStatus::actionNotSupported_, "action not supported"},
      {FlowStatus::hardwareFull_, "hardware full"},
      {FlowStatus::waitingForInterface_, "waiting for an interface"},
      {FlowStatus::hardwareError_, "hardware error"},
      {FlowStatus::invalidInterface_, "invalid interface"},
      {FlowStatus::conflict_, "conflict"},
      {FlowStatus::actionSetNotSupported_, "actions not supported together"},
      {FlowStatus::deleting_, "being deleted"},
  }};
  return numberAndWords(words, status);
}

std::string groupStatusText(GroupStatus status) {
  static constexpr Korm::EnumTexts<GroupStatus, 5> words{{
      {GroupStatus::ready_, "ready"},
      {GroupStatus::pending_, "pending"},
      {GroupStatus::actionNotSupported_, "action not supported"},
      {GroupStatus::hardwareFull_, "hardware full"},
      {GroupStatus::hardwareError_, "hardware error"},
  }};
  return numberAndWords(words, status);
}

std::string groupTypeText(GroupType type) {
  static constexpr Korm::EnumTexts<GroupType, 4> words{{
      {GroupType::all_, "all"},
      {GroupType::select_, "select"},
      {GroupType::indirect_, "indirect"},
      {GroupType::fastFailover_, "fast failover"},
  }};
  return numberAndWords(words, type);
}

std::string errorText(ErrorCode code) {
  static constexpr Korm::EnumTexts<ErrorCode, 9> words{{
      {ErrorCode::hardwareResourceExhausted_, "the hardware has no room for it"},
      {ErrorCode::actionNotSupported_, "the hardware does not support the actions"},
      {ErrorCode::matchNotSupported_, "the hardware does not support the match"},
      {ErrorCode::undefinedBehavior_, "the combination has no defined behavior"},
      {ErrorCode::notAllowed_, "a field is not allowed"},
      {ErrorCode::invalidArgument_, "a value is not valid"},
      {ErrorCode::notFound_, "something it refers to is not found"},
      {ErrorCode::invalidMask_, "a mask is not valid"},
      {ErrorCode::hardwareError_, "the hardware failed to program it"},
  }};
  return std::string{Korm::enumText(words, code, "no reason given")};
}

std::string encapTypeText(std::uint8_t type) {
  static constexpr std::array<std::string_view, 3> names{"none", "ip-in-ip", "gre"};
  return type < names.size() ? std::string{names[type]} : std::to_string(type);
}

std::vector<std::string_view> droppedColors(const OpenFlowTable::PolicerConfig& policer) {
  static constexpr std::array<std::string_view, 3> colors{"green", "yellow", "red"};
  std::vector<std::string_view> dropped;
  for (std::size_t color = 0; color < colors.size(); ++color) {
    if (policer.dropByColor[color] != 0) {
      dropped.push_back(colors[color]);
    }
  }
  return dropped;
}

std::string secondsText(double seconds) {
  if (seconds == 0) {
    return "-";
  }
  std::array<char, 400> text;
  const int length = std::snprintf(text.data(), text.size(), "%.6f", seconds);
  std::string result(text.data(), static_cast<std::size_t>(length));
  result.erase(result.find_last_not_of('0') + 1);
  return result.ends_with('.') ? result.substr(0, result.size() - 1) : result;
}

}  // namespace Cli
