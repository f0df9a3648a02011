// The types that the library shares with the service: the flow key, the flow entries and their
// tables.
//
// Keys and entries are stored in shared memory. They are trivially copyable and have no padding, so
// they can be compared and hashed as bytes. Only the service writes the tables, on the activity
// thread.
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

// Whether a mask matches everything: it is zero, or false, or an address without a family.
template <class T>
[[nodiscard]] constexpr bool isWildcardMask(const T& mask) noexcept {
  if constexpr (requires { mask.isZero(); }) {
    return mask.isZero();
  } else {
    return mask == T{};
  }
}

}  // namespace detail

// The number of a flow table, by which its configuration and its status are found.
using FlowTableIndex = Korm::BoundedValue<std::uint8_t, detail::FlowTableIndexLimits>;

// The flow tables that have a state machine: indexes 0 to flowTables - 1. The last index has none.
inline constexpr std::uint8_t flowTables = FlowTableIndex::max;

// A copy of one match field of a key.
template <class T>
struct MatchField {
  T value{};
  T mask{};
  bool given = false;  // whether the entry has the field at all

  // Whether the field restricts the match: it is given, with a mask that is not a wildcard.
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
  return matchFieldInfo(field).name.data();  // a literal, so it is terminated by a zero
}
// The family of the addresses that an address field holds.
[[nodiscard]] constexpr Korm::AddressFamily addressFamily(MatchFieldId field) noexcept {
  return matchFieldInfo(field).width.bits == 32 ? Korm::AddressFamily::ipv4_
                                                : Korm::AddressFamily::ipv6_;
}

// A field as a compile-time constant, for visitors. Converts to its number and to its name.
template <MatchFieldId field>
struct MatchFieldTag : std::integral_constant<MatchFieldId, field> {
  constexpr operator std::string_view() const noexcept {  // NOLINT(google-explicit-constructor)
    return matchFieldInfo(field).name;
  }
};

// Identifies a flow entry by its placement (table type, priority group and priority) and its match.
// Two entries with the same placement and match are the same flow. The default key is all zero, and
// has no fields.
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
  // As the controller gave it: the range is checked by the translation.
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
  // See MatchField::constrained().
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
  // An arbitrary order, for sorted containers.
  friend bool operator<(const OstraKey& a, const OstraKey& b) noexcept {
    return std::memcmp(&a, &b, sizeof(OstraKey)) < 0;
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return static_cast<std::uint32_t>(Korm::hashBytes(this, sizeof(OstraKey), seed) >> 32);
  }

  // The text form: "Value('Ostra::OstraKey', ** {'tableType': 0, ..., 'hdr.icmp.type': '8&255'})",
  // which is the placement and then the fields that are given, each as value and mask. A field that
  // is not given, but whose bytes are not zero, is marked by a '!' before the quote.
  [[nodiscard]] std::string valueToStrep() const;
  friend std::ostream& operator<<(std::ostream& out, const OstraKey& key);
  // The binary trace records only the hash of a key.
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
  // For parsers that fill a key by the names of the fields.
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

// A key with its hash, for a caller that looks it up several times.
// Requires: the key outlives this object, which only refers to it. `itsHash` is itsKey.hash(0).
struct HashedKey {
  explicit HashedKey(const OstraKey& itsKey) noexcept : HashedKey{itsKey, itsKey.hash(0)} {}
  HashedKey(const OstraKey& itsKey, std::uint32_t itsHash) noexcept : key{itsKey}, hash{itsHash} {}

  const OstraKey& key;
  const std::uint32_t hash;
};

// One flow entry as the service stores it.
//
// The values are those of the controller, unchecked: the translation checks them. The plain actions
// are in `actions`. The other actions refer to something that the switch has to resolve: a port
// becomes an interface, a member or a group becomes a Corvex group. Each of these has a flag that
// says whether the controller gave it. If both a member and a group are given, the group is used.
//
// An entry has two numbers. The entry handle identifies it: the service reports results under the
// handle, the Corvex flow is named after it, and the handle leads back from the flow to the entry.
// No two stored entries have the same handle, and 0 is none. The entry id is only a label that
// travels with the flow to the hardware, for people and for counters. The library passes it on and
// never looks anything up by it, so two entries may have the same id.
struct OstraConfigEntry {
  using Key = OstraKey;
  static constexpr std::string_view vastaName = "Ostra::OstraConfigEntry";

  [[nodiscard]] const OstraKey& key() const noexcept { return flowKey; }
  [[nodiscard]] const OpenFlowTable::ActionSet& actionSet() const noexcept {
    return actions.actionSet();
  }
  // Whether `outputPort` is given. The flag is the output action in `actions`, which has no value.
  [[nodiscard]] bool outputGiven() const noexcept {
    return actions.has(OpenFlowTable::Action::outputIntf_);
  }
  void outputPortIs(P4Runtime::P4PortId port) noexcept {
    outputPort = port;
    actions.outputIntfIs({}, true);
  }

  P4Runtime::EntryHandle entryHandle;
  OpenFlowTable::Actions actions;
  std::uint32_t entryId = 0;
  // The port to send packets to, if outputGiven().
  P4Runtime::P4PortId outputPort = 0;
  // The VRF that the flow uses, if vrfGiven.
  Vrf::VrfIdMap::VrfId vrfId = 0;
  // The action-profile member or group to forward to, if memberGiven or groupGiven.
  P4Runtime::MemberOrGroupId memberId = 0;
  P4Runtime::MemberOrGroupId groupId = 0;
  OstraKey flowKey;
  // The VLAN to set, if vlanGiven.
  std::uint16_t vlanId = 0;
  bool vrfGiven = false;
  bool vlanGiven = false;
  bool memberGiven = false;
  bool groupGiven = false;
  // Pads the entry to a multiple of eight bytes.
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
