// The checks of the flow state machine.

#include <array>

#include "Ostra/EtherType.h"
#include "Ostra/OstraSm.h"
#include "Ostra/Trace.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Ostra {
namespace {

using P4Runtime::ErrorCode;

constexpr std::string_view scope = "OstraSm::";

constinit Brisklog::TracePoint traceKey{traceHandle, TraceLevel::routine, scope, "validateFlowKey"};
constinit Brisklog::TracePoint traceAction{traceHandle, TraceLevel::routine, scope,
                                           "validateFlowAction"};
constinit Brisklog::TracePoint traceNoVerdict{
    traceHandle, TraceLevel::failure, "", "validateFlowKey",
    " etherTypeIgnored: %s isIpEtherType: %s isIpPacketIgnored: %s isIpPacket: %s"};

constexpr const char* etherTypeName = matchFieldName(MatchFieldId::etherType_);
constexpr const char* isIpPacketName = "local.metadata.isIpPacket";

// What a flow says of being IP: by its ether type, and by the is-IP-packet flag.
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
  Korm::assertionFailed("false", Korm::sourceUnit(__builtin_FILE()), __builtin_LINE());
}

// What must be exact for a field to be constrained.
enum class Needs : std::uint8_t { ip4_, ip6_, arp_, ip4OrIp6_, ipOnly_ };

struct FieldCheck {
  MatchFieldId field;
  bool (*constrained)(const OstraKey& key);
  Needs needs;
};

template <auto accessor>
bool isConstrained(const OstraKey& key) {
  return (key.*accessor)().constrained();
}

// In the order of the checks: the first field that breaks its condition is the one reported. The flag
// alone does not do for those that need an ether type: the hardware must know which header it looks at.
constexpr std::array<FieldCheck, 9> fieldChecks{{
    {MatchFieldId::ip6Dst_, isConstrained<&OstraKey::ip6Dst>, Needs::ip6_},
    {MatchFieldId::ip6Src_, isConstrained<&OstraKey::ip6Src>, Needs::ip6_},
    {MatchFieldId::ip4Dst_, isConstrained<&OstraKey::ip4Dst>, Needs::ip4_},
    {MatchFieldId::ip4Src_, isConstrained<&OstraKey::ip4Src>, Needs::ip4_},
    {MatchFieldId::arpTarget_, isConstrained<&OstraKey::arpTarget>, Needs::arp_},
    {MatchFieldId::icmpType_, isConstrained<&OstraKey::icmpType>, Needs::ip4OrIp6_},
    {MatchFieldId::dscp_, isConstrained<&OstraKey::dscp>, Needs::ipOnly_},
    {MatchFieldId::hopLimit_, isConstrained<&OstraKey::hopLimit>, Needs::ipOnly_},
    {MatchFieldId::nextHeader_, isConstrained<&OstraKey::nextHeader>, Needs::ipOnly_},
}};

bool isMet(Needs needs, const MatchField<std::uint16_t>& etherType, bool isIp) noexcept {
  const bool exact = etherType.constrained();
  switch (needs) {
    case Needs::ip4_:
      return exact && etherType.value == EtherType::ipv4;
    case Needs::ip6_:
      return exact && etherType.value == EtherType::ipv6;
    case Needs::arp_:
      return exact && etherType.value == EtherType::arp;
    case Needs::ip4OrIp6_:
      return exact && EtherType::isIp(etherType.value);
    case Needs::ipOnly_:
      break;
  }
  return isIp;
}

}  // namespace

void OstraSm::validateFlowKey(const OstraKey& key, P4Runtime::EntryHandle handle) const {
  traceKey();
  const MatchField<std::uint16_t> etherType = key.etherType();
  if (etherType.constrained() && etherType.mask != EtherType::exactMask) {
    validationHelper_->throwEntryErrorException(
        handle, ErrorCode::invalidMask_,
        Korm::String{etherTypeName} + " should be a wildcard or an exact value");
  }
  const IpVerdict& verdict = ipVerdict(etherType, key.isIpPacket());
  if (verdict.reason == nullptr) {
    validationHelper_->throwUndefinedEntryBehavior(handle, etherTypeName, isIpPacketName);
  }
  for (const FieldCheck& check : fieldChecks) {
    if (!key.given(check.field) || !check.constrained(key) ||
        isMet(check.needs, etherType, verdict.isIp)) {
      continue;
    }
    const char* const field = matchFieldName(check.field);
    if (check.needs == Needs::ipOnly_) {
      validationHelper_->throwNotAllowedEntryBehavior(handle, verdict.reason, field);
    }
    validationHelper_->throwUndefinedEntryBehavior(handle, etherTypeName, field);
  }
}

void OstraSm::validatePortAndMask(P4Runtime::EntryHandle handle, P4Runtime::P4PortId portId,
                                  P4Runtime::P4PortId mask, const Korm::String& fieldName) const {
  const Korm::Ptr<P4Runtime::ValidationHelper> helper = validationHelper_;
  helper->validatePortIdMask(handle, mask, fieldName);
  helper->validatePortId(handle, portId, fieldName);
}

bool OstraSm::groupReady(OpenFlowTable::GroupId id) const {
  const bool configured = cxHwConfig_->groupEntry(id) != nullptr;
  const auto status =
      cxHwStatusDir_ ? cxHwStatusDir_->entityPtr<OpenFlowTable::HwStatus>("p4rt") : nullptr;
  if (!configured || !status) {
    return false;
  }
  const OpenFlowTable::GroupStats* const stats = status->groupStats(id);
  return stats != nullptr && stats->status() == OpenFlowTable::GroupStatus::ready_;
}

void OstraSm::validateFlowAction(const OpenFlowTable::Actions& actions,
                                 const OpenFlowTable::ActionSet& actionSet,
                                 const OstraConfigEntry& entry) const {
  traceAction();
  if (!actionSet.has(OpenFlowTable::Action::group_) || groupReady(actions.group())) {
    return;
  }
  const Korm::String reference = entry.memberGiven ? "Member id: " + std::to_string(entry.memberId)
                                                   : "Group id: " + std::to_string(entry.groupId);
  validationHelper_->throwEntryErrorException(entry.entryHandle, ErrorCode::notFound_,
                                              reference + " is not found");
}

}  // namespace Ostra
