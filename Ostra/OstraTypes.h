// The types that the library shares with the service: the flow key, the flow entries and their
// tables.
//
// Thread and process rule: keys and entries are values that stand in shared memory, trivially
// copyable and without padding, so that equality and hash are exact over their bytes. The tables
// are the service's to write, on the activity thread.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "Ostra/MatchFields.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"
#include "platform/Korm/BoundedValue.h"
#include "platform/Korm/Entity.h"
#include "platform/Korm/Hash.h"
#include "platform/Korm/Packed.h"
#include "platform/KormVasta/TableEntity.h"
#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/P4Runtime/Types.h"
#include "platform/P4RuntimeRouting/Ecmp.h"
#include "platform/Vrf/Vrf.h"

namespace Ostra {

namespace detail {

struct FlowTableIndexLimits {
  static constexpr std::uint8_t min = 0;
  static constexpr std::uint8_t max = 15;
  static constexpr const char* message =
      "FlowTableIndex::value < 0 or > FlowTableIndex::max not allowed";
};

// Whether a mask leaves everything open: zero, for an address also no family, for a flag false.
template <class T>
[[nodiscard]] constexpr bool isWildcardMask(const T& mask) noexcept {
  if constexpr (requires { mask.isZero(); }) {
    return mask.isZero();
  } else {
    return mask == T{};
  }
}

}  // namespace detail

// The place of one flow table among the status tables.
using FlowTableIndex = Korm::BoundedValue<std::uint8_t, detail::FlowTableIndexLimits>;

// One field of a match as a reader sees it.
template <class T>
struct MatchField {
  T value{};
  T mask{};
  bool given = false;  // whether the entry gave the field at all

  // Given, with a mask that is not a wildcard.
  [[nodiscard]] constexpr bool constrained() const noexcept {
    return given && !detail::isWildcardMask(mask);
  }
};

// The match fields by number, in the order of the key.
#define OSTRA_FIELD_NUMBER(member, ...) member##_,
enum class MatchFieldId : std::uint8_t { OSTRA_MATCH_FIELDS(OSTRA_FIELD_NUMBER) count_ };
#undef OSTRA_FIELD_NUMBER

namespace detail {
#define OSTRA_FIELD_INFO(member, Type, name, width, needs, ...) \
  MatchFieldInfo{name, width, MatchNeeds::needs},
inline constexpr std::array matchFieldInfos{OSTRA_MATCH_FIELDS(OSTRA_FIELD_INFO)};
#undef OSTRA_FIELD_INFO
}  // namespace detail

[[nodiscard]] constexpr const MatchFieldInfo& matchFieldInfo(MatchFieldId field) noexcept {
  return detail::matchFieldInfos[static_cast<std::size_t>(field)];
}
// The field's name in the P4 program.
[[nodiscard]] constexpr const char* matchFieldName(MatchFieldId field) noexcept {
  return matchFieldInfo(field).name.data();  // of a literal, so there is a zero behind it
}
// The family of the addresses that an address field holds.
[[nodiscard]] constexpr Korm::AddressFamily addressFamily(MatchFieldId field) noexcept {
  return matchFieldInfo(field).width.bits == 32 ? Korm::AddressFamily::ipv4_
                                                : Korm::AddressFamily::ipv6_;
}

// A field that is known when the visitor is compiled; converts to its number and to its name.
template <MatchFieldId field>
struct MatchFieldTag : std::integral_constant<MatchFieldId, field> {
  constexpr operator std::string_view() const noexcept {  // NOLINT(google-explicit-constructor)
    return matchFieldInfo(field).name;
  }
};

// Identifies one flow entry by its whole match and its placement. Two entries with the same match
// and placement are the same flow. The default key is all zero: nothing is given.
//
// For each line of OSTRA_MATCH_FIELDS there is an accessor `member()`, which returns the
// MatchField, and a mutator `memberIs(value, mask)`, after which the field is given.
class OstraKey {
 public:
  OstraKey() noexcept = default;
  // Reads the text form, and moves `current` behind it.
  // Throws: Korm::ParseException for anything that the text form would not print.
  OstraKey(std::string::const_iterator& current, std::string::const_iterator end);

  [[nodiscard]] std::int32_t tableType() const noexcept { return tableType_; }
  void tableTypeIs(std::int32_t type) noexcept { tableType_ = type; }
  [[nodiscard]] std::uint32_t priorityGroupType() const noexcept { return priorityGroupType_; }
  void priorityGroupTypeIs(std::uint32_t type) noexcept { priorityGroupType_ = type; }
  // As the controller gave it; the translation checks it.
  [[nodiscard]] std::int32_t priority() const noexcept { return priority_; }
  void priorityIs(std::int32_t priority) noexcept { priority_ = priority; }

#define OSTRA_FIELD_ACCESSORS(member, Type, ...)                                              \
  [[nodiscard]] MatchField<Type> member() const noexcept {                                    \
    return {member##_.value.value(), member##_.mask.value(), given(MatchFieldId::member##_)}; \
  }                                                                                           \
  void member##Is(const Type& value, const Type& mask) noexcept {                             \
    member##_.value.valueIs(value);                                                           \
    member##_.mask.valueIs(mask);                                                             \
    givenIs(MatchFieldId::member##_, true);                                                   \
  }
  OSTRA_MATCH_FIELDS(OSTRA_FIELD_ACCESSORS)
#undef OSTRA_FIELD_ACCESSORS

  [[nodiscard]] bool given(MatchFieldId field) const noexcept {
    return (given_ >> static_cast<unsigned>(field) & 1U) != 0;
  }
  // Given, with a mask that is not a wildcard.
  [[nodiscard]] bool constrained(MatchFieldId field) const noexcept {
    if (!given(field)) {
      return false;
    }
    switch (field) {
#define OSTRA_FIELD_CONSTRAINED(member, ...) \
  case MatchFieldId::member##_:              \
    return !detail::isWildcardMask(member##_.mask.value());
      OSTRA_MATCH_FIELDS(OSTRA_FIELD_CONSTRAINED)
#undef OSTRA_FIELD_CONSTRAINED
      case MatchFieldId::count_:
        break;
    }
    return false;
  }
  void givenIs(MatchFieldId field, bool given) noexcept {
    const std::uint32_t bit = 1U << static_cast<unsigned>(field);
    given_ = given ? given_ | bit : given_ & ~bit;
  }

  friend bool operator==(const OstraKey& a, const OstraKey& b) noexcept {
    return std::memcmp(&a, &b, sizeof(OstraKey)) == 0;
  }
  // An order of no meaning, for sorted containers.
  friend bool operator<(const OstraKey& a, const OstraKey& b) noexcept {
    return std::memcmp(&a, &b, sizeof(OstraKey)) < 0;
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return static_cast<std::uint32_t>(Korm::hashBytes(this, sizeof(OstraKey), seed) >> 32);
  }

  // "Value('Ostra::OstraKey', ** {'tableType': 0, ..., 'hdr.icmp.type': '8&255'})": the placement,
  // then the fields that are given, each as value and mask. A field that is not given but not zero
  // either stands with a '!' before the quote.
  [[nodiscard]] std::string valueToStrep() const;
  friend std::ostream& operator<<(std::ostream& out, const OstraKey& key);
  // In the binary trace a key is its hash.
  friend std::uint32_t brisklogArgument(const OstraKey& key) noexcept { return key.hash(0); }

  // Calls visit(tag, field) for each match field, in the order of the key. The tag is a
  // MatchFieldTag.
  template <class Visit>
  void forEachField(Visit&& visit) const {
#define OSTRA_FIELD_VISIT(member, ...) visit(MatchFieldTag<MatchFieldId::member##_>{}, member());
    OSTRA_MATCH_FIELDS(OSTRA_FIELD_VISIT)
#undef OSTRA_FIELD_VISIT
  }
  // The same for those that are given.
  template <class Visit>
  void forEachGiven(Visit&& visit) const {
#define OSTRA_FIELD_VISIT(member, ...)                         \
  if (given(MatchFieldId::member##_)) {                        \
    visit(MatchFieldTag<MatchFieldId::member##_>{}, member()); \
  }
    OSTRA_MATCH_FIELDS(OSTRA_FIELD_VISIT)
#undef OSTRA_FIELD_VISIT
  }
  // Calls visit(tag, field, put) for each; put(value, mask) writes the field and makes it given.
  // For those who fill a key by name.
  template <class Visit>
  void forEachField(Visit&& visit) {
#define OSTRA_FIELD_VISIT(member, Type, ...)                \
  visit(MatchFieldTag<MatchFieldId::member##_>{}, member(), \
        [this](const Type& value, const Type& mask) { member##Is(value, mask); });
    OSTRA_MATCH_FIELDS(OSTRA_FIELD_VISIT)
#undef OSTRA_FIELD_VISIT
  }

 private:
  template <class T>
  struct PackedMatch {
    Korm::Packed<T> value;
    Korm::Packed<T> mask;
  };
  static constexpr std::size_t matchBytes = [] {
    std::size_t bytes = 0;
#define OSTRA_FIELD_SIZE(member, Type, ...) bytes += sizeof(PackedMatch<Type>);
    OSTRA_MATCH_FIELDS(OSTRA_FIELD_SIZE)
#undef OSTRA_FIELD_SIZE
    return bytes;
  }();

  std::int32_t tableType_ = 0;
  std::uint32_t priorityGroupType_ = 0;
  std::int32_t priority_ = 0;
  std::uint32_t given_ = 0;  // a bit per MatchFieldId
#define OSTRA_FIELD_STORAGE(member, Type, ...) PackedMatch<Type> member##_;
  OSTRA_MATCH_FIELDS(OSTRA_FIELD_STORAGE)
#undef OSTRA_FIELD_STORAGE
  std::array<std::byte, 4 - matchBytes % 4> reserved_{};
};
static_assert(std::is_trivially_copyable_v<OstraKey>);
static_assert(std::has_unique_object_representations_v<OstraKey>);
static_assert(static_cast<unsigned>(MatchFieldId::count_) <= 32, "a bit of given_ per field");

// One flow entry as the service stores it.
//
// What the entry does stands as the controller gave it, and the translation checks it. The plain
// actions are in `actions`. Those that the switch has to resolve stand beside it, each with a flag
// that says whether the controller gave it: a port becomes an interface, a member or group becomes
// a Corvex group. Where both a member and a group are given, the group counts.
struct OstraConfigEntry {
  using Key = OstraKey;
  static constexpr std::string_view vastaName = "Ostra::OstraConfigEntry";

  [[nodiscard]] const OstraKey& key() const noexcept { return flowKey; }
  [[nodiscard]] const OpenFlowTable::ActionSet& actionSet() const noexcept {
    return actions.actionSet();
  }
  // The port is given, in other words.
  [[nodiscard]] bool outputGiven() const noexcept {
    return actions.has(OpenFlowTable::Action::outputIntf_);
  }
  void outputPortIs(P4Runtime::P4PortId port) noexcept {
    outputPort = port;
    actions.outputIntfIs({}, true);
  }

  // Who the entry is to the service: its results are reported under the handle, and the Corvex flow
  // is named after it. No two rows that are stored at a time have the same handle, and none has 0.
  P4Runtime::EntryHandle entryHandle;
  // The plain actions. The output action is present in them, without a value, when `outputPort` is
  // given.
  OpenFlowTable::Actions actions;
  // A number that travels with the flow to the hardware, as a label for people and counters. The
  // library passes it on and finds nothing by it; unlike handles, ids may repeat.
  std::uint32_t entryId = 0;
  P4Runtime::P4PortId outputPort = 0;  // see outputGiven()
  Vrf::VrfIdMap::VrfId vrfId = 0;      // with vrfGiven: the VRF in which the flow lives
  P4Runtime::MemberOrGroupId memberId =
      0;  // with memberGiven: the action-profile member to forward to
  P4Runtime::MemberOrGroupId groupId =
      0;                     // with groupGiven: the action-profile group to forward to
  OstraKey flowKey;          // what the flow matches, and its place among the flows
  std::uint16_t vlanId = 0;  // with vlanGiven: the VLAN to put packets in
  bool vrfGiven = false;
  bool vlanGiven = false;
  bool memberGiven = false;
  bool groupGiven = false;
  // Fills up to eight bytes, whatever the size of the key.
  std::array<std::byte, 8 - (sizeof(OpenFlowTable::Actions) + 34 + sizeof(OstraKey)) % 8>
      reserved{};
};
static_assert(std::has_unique_object_representations_v<OstraConfigEntry>);

// One flow configuration table.
class OstraConfig final : public KormVasta::TableEntity<OstraConfigEntry> {
 public:
  using TableEntity::TableEntity;
};

// The service's configuration tables: flow tables by index, and the ECMP tables. Any may be null.
class OstraConfigTableColl final : public Korm::Entity {
 public:
  [[nodiscard]] const Korm::Ptr<OstraConfig>& ostraConfig(FlowTableIndex index) const noexcept {
    return ostraConfig_[index.value()];
  }
  void ostraConfigIs(FlowTableIndex index, Korm::Ptr<OstraConfig> table) noexcept {
    ostraConfig_[index.value()] = std::move(table);
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable() const noexcept {
    return p4rtEcmpGroupTable_;
  }
  void p4rtEcmpGroupTableIs(Korm::Ptr<P4RuntimeRouting::EcmpGroup> table) noexcept {
    p4rtEcmpGroupTable_ = std::move(table);
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable()
      const noexcept {
    return p4rtEcmpMemberTable_;
  }
  void p4rtEcmpMemberTableIs(Korm::Ptr<P4RuntimeRouting::EcmpMember> table) noexcept {
    p4rtEcmpMemberTable_ = std::move(table);
  }

 private:
  std::array<Korm::Ptr<OstraConfig>, FlowTableIndex::max + 1> ostraConfig_;
  Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable_;
  Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable_;
};

}  // namespace Ostra
