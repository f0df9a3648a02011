// The checks of the flow state machine.

#include <algorithm>
#include <array>
#include <optional>

#include "Ostra/EtherType.h"
#include "Ostra/OstraSm.h"
#include "Ostra/StatePaths.h"
#include "Ostra/Trace.h"
#include "Ostra/private/StepTrace.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Ostra {
namespace {

using P4Runtime::ErrorCode;

constexpr std::string_view scope = "OstraSm::";
constexpr const char* unit = "Ostra/OstraSm";  // the trace shows one unit for all its files

constinit StepTrace traceKey{traceHandle, TraceLevel::routine, scope, "validateFlowKey", "", unit};
constinit StepTrace traceAction{traceHandle, TraceLevel::routine, scope, "validateFlowAction", "",
                                unit};
constinit Brisklog::TracePoint traceNoVerdict{
    traceHandle,
    TraceLevel::failure,
    "",
    "validateFlowKey",
    " etherTypeIgnored: %s isIpEtherType: %s isIpPacketIgnored: %s isIpPacket: %s",
    unit};

constexpr const char* etherTypeName = matchFieldName(MatchFieldId::etherType_);
constexpr const char* isIpPacketName = "local.metadata.isIpPacket";

// Whether one field restricts a flow to IP packets: yes_ to IP packets only, no_ to others only.
enum class SaysIp : std::uint8_t { ignored_, yes_, no_ };

// Whether a flow matches IP packets only, and if not, why.
struct IpVerdict {
  SaysIp etherType;
  SaysIp isIpPacket;
  bool isIp;
  const char* reason;  // null: the two contradict each other
};

constexpr std::array<IpVerdict, 9> ipVerdicts{{
    {SaysIp::ignored_, SaysIp::ignored_, false, "ether type is ignored and isIpPacket is ignored"},
    {SaysIp::ignored_, SaysIp::yes_, true, ""},
    {SaysIp::ignored_, SaysIp::no_, false, "ether type is ignored and isIpPacket is false"},
    {SaysIp::yes_, SaysIp::ignored_, true, ""},
    {SaysIp::yes_, SaysIp::yes_, true, ""},
    {SaysIp::yes_, SaysIp::no_, false, nullptr},
    {SaysIp::no_, SaysIp::ignored_, false, "ether type is non-ip and isIpPacket is ignored"},
    {SaysIp::no_, SaysIp::no_, false, "ether type is non-ip and isIpPacket is false"},
    {SaysIp::no_, SaysIp::yes_, false, nullptr},
}};

SaysIp saysIp(bool constrained, bool isIp) noexcept {
  return !constrained ? SaysIp::ignored_ : isIp ? SaysIp::yes_ : SaysIp::no_;
}

const IpVerdict& ipVerdict(const MatchField<std::uint16_t>& etherType,
                           const MatchField<bool>& isIpPacket) {
  const SaysIp byType = saysIp(etherType.constrained(), EtherType::isIp(etherType.value));
  const SaysIp byFlag = saysIp(isIpPacket.constrained(), isIpPacket.value);
  for (const IpVerdict& verdict : ipVerdicts) {
    if (verdict.etherType == byType && verdict.isIpPacket == byFlag) {
      return verdict;
    }
  }
  traceNoVerdict(!etherType.constrained(), EtherType::isIp(etherType.value),
                 !isIpPacket.constrained(), isIpPacket.value);
  Korm::assertionFailed("false", unit, __builtin_LINE());
}

constexpr std::size_t needyFieldCount = static_cast<std::size_t>(
    std::count_if(detail::matchFieldInfos.begin(), detail::matchFieldInfos.end(),
                  [](const auto& info) { return info.needs != MatchNeeds::none_; }));

// The fields that need something else in the match, in the order of the checks: by need, then by
// name. The first one whose need is not met is reported.
constexpr auto needyFields = [] {
  std::array<MatchFieldId, needyFieldCount> fields{};
  std::size_t count = 0;
  for (unsigned number = 0; number < static_cast<unsigned>(MatchFieldId::count_); ++number) {
    const auto field = static_cast<MatchFieldId>(number);
    if (matchFieldInfo(field).needs != MatchNeeds::none_) {
      fields[count++] = field;
    }
  }
  std::sort(fields.begin(), fields.end(), [](MatchFieldId a, MatchFieldId b) {
    const MatchFieldInfo& first = matchFieldInfo(a);
    const MatchFieldInfo& second = matchFieldInfo(b);
    return first.needs != second.needs ? first.needs < second.needs : first.name < second.name;
  });
  return fields;
}();

bool isMet(MatchNeeds needs, const MatchField<std::uint16_t>& etherType, bool isIp) noexcept {
  return needs == MatchNeeds::ipPacket_
             ? isIp
             : etherType.constrained() && isMetBy(needs, etherType.value);
}

// The first constrained field whose need is not met.
std::optional<MatchFieldId> fieldInNeed(const OstraKey& key,
                                        const MatchField<std::uint16_t>& etherType, bool isIp) {
  for (const MatchFieldId field : needyFields) {
    if (!isMet(matchFieldInfo(field).needs, etherType, isIp) && key.constrained(field)) {
      return field;
    }
  }
  return std::nullopt;
}

// Whether the address is of that family or of none, which means zero.
bool isOf(Korm::AddressFamily family, const Korm::IpAddr& address) noexcept {
  return address.family() == family || address.family() == Korm::AddressFamily::none_;
}

// The first constrained field with an address of the other family.
std::optional<MatchFieldId> fieldOfWrongFamily(const OstraKey& key) {
  std::optional<MatchFieldId> wrong;
  key.forEachGiven([&wrong](auto id, const auto& field) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(field.value)>, Korm::IpAddr>) {
      constexpr Korm::AddressFamily family = addressFamily(id);
      if (!wrong && field.constrained() &&
          !(isOf(family, field.value) && isOf(family, field.mask))) {
        wrong = id;
      }
    }
  });
  return wrong;
}

}  // namespace

void OstraSm::validateFlowKey(const OstraKey& key, P4Runtime::EntryHandle handle) const {
  traceKey();
  const MatchField<std::uint16_t> etherType = key.etherType();
  if (etherType.constrained() && etherType.mask != EtherType::exactMask) {
    inputs_.validationHelper->throwEntryErrorException(
        handle, ErrorCode::invalidMask_,
        Korm::String{etherTypeName} + " should be a wildcard or an exact value");
  }
  const IpVerdict& verdict = ipVerdict(etherType, key.isIpPacket());
  if (verdict.reason == nullptr) {
    inputs_.validationHelper->throwUndefinedEntryBehavior(handle, etherTypeName, isIpPacketName);
  }
  if (const auto field = fieldInNeed(key, etherType, verdict.isIp)) {
    const char* const name = matchFieldName(*field);
    if (matchFieldInfo(*field).needs == MatchNeeds::ipPacket_) {
      inputs_.validationHelper->throwNotAllowedEntryBehavior(handle, verdict.reason, name);
    }
    inputs_.validationHelper->throwUndefinedEntryBehavior(handle, etherTypeName, name);
  }
  if (const auto field = fieldOfWrongFamily(key)) {
    const char* const family =
        addressFamily(*field) == Korm::AddressFamily::ipv4_ ? "an IPv4" : "an IPv6";
    inputs_.validationHelper->throwEntryErrorException(
        handle, ErrorCode::invalidArgument_,
        Korm::String{matchFieldName(*field)} + " should be " + family + " address");
  }
}

void OstraSm::validatePortAndMask(P4Runtime::EntryHandle handle, P4Runtime::P4PortId portId,
                                  P4Runtime::P4PortId mask, const Korm::String& fieldName) const {
  const Korm::Ptr<P4Runtime::ValidationHelper> helper = inputs_.validationHelper;
  helper->validatePortIdMask(handle, mask, fieldName);
  helper->validatePortId(handle, portId, fieldName);
}

std::optional<MatchFieldId> OstraSm::refusedField(const OstraKey& key) {
  const MatchField<std::uint16_t> etherType = key.etherType();
  if (etherType.constrained() && etherType.mask != EtherType::exactMask) {
    return MatchFieldId::etherType_;
  }
  const IpVerdict& verdict = ipVerdict(etherType, key.isIpPacket());
  if (verdict.reason == nullptr) {
    return MatchFieldId::isIpPacket_;
  }
  const auto field = fieldInNeed(key, etherType, verdict.isIp);
  return field ? field : fieldOfWrongFamily(key);
}

GroupNeed OstraSm::groupNeed(OpenFlowTable::GroupId id) const {
  GroupNeed need{.id = id, .state = GroupNeed::State::missing_, .status = std::nullopt};
  if (inputs_.cxHwConfig->groupEntry(id) == nullptr) {
    return need;
  }
  need.state = GroupNeed::State::notReady_;
  const auto status = inputs_.cxHwStatusDir
                          ? inputs_.cxHwStatusDir->entityPtr<OpenFlowTable::HwStatus>(p4rtName)
                          : nullptr;
  const OpenFlowTable::GroupStats* const stats = status ? status->groupStats(id) : nullptr;
  if (stats != nullptr) {
    need.status = stats->status();
    if (stats->status() == OpenFlowTable::GroupStatus::ready_) {
      need.state = GroupNeed::State::ready_;
    }
  }
  return need;
}

void OstraSm::validateFlowAction(const OpenFlowTable::Actions& actions,
                                 const OpenFlowTable::ActionSet& actionSet,
                                 const OstraConfigEntry& entry) const {
  traceAction();
  if (!actionSet.has(OpenFlowTable::Action::group_) ||
      groupNeed(actions.group()).state == GroupNeed::State::ready_) {
    return;
  }
  const Korm::String reference = entry.memberGiven ? "Member id: " + std::to_string(entry.memberId)
                                                   : "Group id: " + std::to_string(entry.groupId);
  inputs_.validationHelper->throwEntryErrorException(entry.entryHandle, ErrorCode::notFound_,
                                                     reference + " is not found");
}

}  // namespace Ostra
