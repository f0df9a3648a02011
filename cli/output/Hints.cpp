#include "cli/output/Hints.h"

#include "cli/output/TextValues.h"
#include "platform/Korm/Text.h"
#include "platform/P4Runtime/Validation.h"

namespace Cli {
namespace {

namespace EtherType = Ostra::EtherType;
using Ostra::FlowPreview;
using Ostra::FlowStep;
using Ostra::GroupNeed;
using Ostra::MatchFieldId;
using Ostra::MatchNeeds;
using Ostra::OstraConfigEntry;

std::string etherTypeIs(const std::string& value) {
  return std::string{Ostra::matchFieldName(MatchFieldId::etherType_)} + "=" + value;
}

std::string etherTypeText(std::uint16_t type) {
  // Four digits, as ether types are written.
  std::string digits = Korm::hexNumber(type).substr(2);
  return "0x" + std::string(4 - digits.size(), '0') + digits;
}

// "hdr.ethernet.ether_type=0x0800 or 0x86dd"
std::string needsText(MatchNeeds needs) {
  std::string types;
  for (const std::uint16_t type : {EtherType::ipv4, EtherType::arp, EtherType::ipv6}) {
    if (isMetBy(needs, type)) {
      types += (types.empty() ? "" : " or ") + etherTypeText(type);
    }
  }
  const std::string text = etherTypeIs(types);
  return needs == MatchNeeds::ipPacket_
             ? text + ", or " + Ostra::matchFieldName(MatchFieldId::isIpPacket_) + "=true"
             : text;
}

std::string matchHint(const OstraConfigEntry& entry, const FlowPreview& preview) {
  if (!preview.field) {
    return {};
  }
  const Ostra::MatchFieldInfo& info = matchFieldInfo(*preview.field);
  const std::string name{info.name};
  if (*preview.field == MatchFieldId::etherType_) {
    return name + " takes a value without a mask, or is left out";
  }
  if (*preview.field == MatchFieldId::isIpPacket_) {
    const std::uint16_t type = entry.flowKey.etherType().value;
    const bool isIp = EtherType::isIp(type);
    return etherTypeIs(etherTypeText(type)) + (isIp ? " is" : " is not") + " IP, so " + name +
           (isIp ? " is true" : " is false") + " or is left out";
  }
  // What it needs may be there, and then its address is of the wrong family.
  if (preview.code == P4Runtime::ErrorCode::invalidArgument_) {
    return name + (Ostra::addressFamily(*preview.field) == Korm::AddressFamily::ipv4_
                       ? " takes an IPv4 address, such as 10.0.0.0/8"
                       : " takes an IPv6 address, such as 2001:db8::/32");
  }
  return name + " needs " + needsText(info.needs);
}

std::string groupHint(const OstraConfigEntry& entry, const GroupNeed& need) {
  const std::string name = entry.groupGiven ? "group " + std::to_string(entry.groupId)
                                            : "member " + std::to_string(entry.memberId);
  switch (need.state) {
    case GroupNeed::State::missing_:
      return name + " is not configured; write it first";
    case GroupNeed::State::notReady_:
      return name + " is configured; the hardware " +
             (need.status ? "says: " + groupStatusText(*need.status) : "has not reported it ready");
    case GroupNeed::State::ready_:
      break;
  }
  return {};
}

std::string portHint() {
  using Rules = P4Runtime::DefaultValidationHelper;
  return "ports are " + std::to_string(Rules::minPortId) + " to " +
         std::to_string(Rules::maxPortId) + ", and are matched without a mask";
}

}  // namespace

std::string hintText(const OstraConfigEntry& entry, const FlowPreview& preview) {
  if (preview.accepted()) {
    return {};
  }
  switch (preview.step) {
    case FlowStep::ports_:
    case FlowStep::outputPort_:
      return portHint();
    case FlowStep::matchFields_:
      return matchHint(entry, preview);
    case FlowStep::matchValues_:
    case FlowStep::vlan_:
      return "VLAN ids are 0 to " + std::to_string(Bridging::VlanIdOrNone::max);
    case FlowStep::actions_:
    case FlowStep::moreActions_:
      return "traffic classes are 0 to " + std::to_string(OpenFlowTable::TrafficClass::max);
    case FlowStep::group_:
      return preview.group ? groupHint(entry, *preview.group) : std::string{};
    case FlowStep::priority_:
      return "priorities are " + std::to_string(OpenFlowTable::Priority::min) + " to " +
             std::to_string(OpenFlowTable::Priority::max);
    case FlowStep::bookVrf_:
    case FlowStep::mapKey_:
    case FlowStep::write_:
      break;
  }
  return {};
}

std::string_view stepText(FlowStep step) noexcept {
  static constexpr Korm::EnumTexts<FlowStep, 12> texts{{
      {FlowStep::ports_, "ports"},
      {FlowStep::matchFields_, "match-fields"},
      {FlowStep::matchValues_, "match-values"},
      {FlowStep::actions_, "actions"},
      {FlowStep::outputPort_, "output-port"},
      {FlowStep::vlan_, "vlan"},
      {FlowStep::bookVrf_, "vrf"},
      {FlowStep::moreActions_, "more-actions"},
      {FlowStep::group_, "group"},
      {FlowStep::mapKey_, "index"},
      {FlowStep::priority_, "priority"},
      {FlowStep::write_, "write"},
  }};
  static_assert(Korm::hasAllTexts(texts, FlowStep::write_));
  return Korm::enumText(texts, step);
}

bool isCheck(FlowStep step) noexcept {
  return step != FlowStep::bookVrf_ && step != FlowStep::mapKey_ && step != FlowStep::write_;
}

}  // namespace Cli
