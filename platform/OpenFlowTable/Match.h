// What a flow matches.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"
#include "platform/OpenFlowTable/Types.h"

namespace OpenFlowTable {

// A value and a mask of the bits that must match.
template <class T>
struct Masked {
  T value{};
  T mask{};
  friend bool operator==(const Masked&, const Masked&) noexcept = default;
};

// The fields of a match: one line each, and nowhere else.
//
// MASKED is a field with a mask: its name, which is also its name in all output, its type, and its
// width in bits. An exact mask has all of these bits. PLAIN is a field that is matched exactly. All
// output is in the order of the lines.
#define OPENFLOW_MATCH_FIELDS(PLAIN, MASKED) \
  PLAIN(inIntf, Interface::IntfId)           \
  PLAIN(egressIntf, Interface::IntfId)       \
  PLAIN(l3PacketType, L3PacketType)          \
  MASKED(ethSrc, Korm::EthAddr, 48)          \
  MASKED(ethDst, Korm::EthAddr, 48)          \
  MASKED(etherType, std::uint16_t, 16)       \
  MASKED(vlanId, std::uint16_t, 12)          \
  MASKED(ipSrc, Korm::Ip4Addr, 32)           \
  MASKED(ipDst, Korm::Ip4Addr, 32)           \
  MASKED(arpTargetAddr, Korm::Ip4Addr, 32)   \
  MASKED(ip6Src, Korm::Ip6Addr, 128)         \
  MASKED(ip6Dst, Korm::Ip6Addr, 128)         \
  MASKED(tos, std::uint8_t, 8)               \
  MASKED(ipProto, std::uint8_t, 8)           \
  MASKED(ttl, std::uint8_t, 8)               \
  MASKED(icmpType, std::uint8_t, 8)          \
  MASKED(l4SrcPort, std::uint16_t, 16)       \
  MASKED(l4DstPort, std::uint16_t, 16)       \
  MASKED(innerData, std::uint32_t, 32)

// A match. Each field is set or unset (a wildcard). A field is a public data member of its name.
// `nameIs(value, mask)` stores the value of a masked field and sets the field. `nameIs(value, set)`
// stores the value of a plain field and sets or unsets the field.
struct Match {
#define OPENFLOW_NUMBER(name, ...) name##_,
  enum class Field : std::uint8_t {
    OPENFLOW_MATCH_FIELDS(OPENFLOW_NUMBER, OPENFLOW_NUMBER) count_
  };
#undef OPENFLOW_NUMBER

#define OPENFLOW_PLAIN_MEMBER(name, Type)                  \
  Type name{};                                             \
  void name##Is(const Type& newValue, bool set) noexcept { \
    this->name = newValue;                                 \
    hasIs(Field::name##_, set);                            \
  }
#define OPENFLOW_MASKED_MEMBER(name, Type, bits)                      \
  Masked<Type> name;                                                  \
  void name##Is(const Type& newValue, const Type& newMask) noexcept { \
    this->name = {newValue, newMask};                                 \
    hasIs(Field::name##_, true);                                      \
  }
  OPENFLOW_MATCH_FIELDS(OPENFLOW_PLAIN_MEMBER, OPENFLOW_MASKED_MEMBER)
#undef OPENFLOW_PLAIN_MEMBER
#undef OPENFLOW_MASKED_MEMBER

  std::uint32_t present = 0;  // a bit per Field

  [[nodiscard]] bool has(Field field) const noexcept {
    return (present >> static_cast<unsigned>(field) & 1U) != 0;
  }
  void hasIs(Field field, bool set) noexcept {
    const std::uint32_t bit = 1U << static_cast<unsigned>(field);
    present = set ? present | bit : present & ~bit;
  }

  // Calls visit(info, value) for each field that is set, in the order of the lines. The value of a
  // masked field is a Masked.
  template <class Visit>
  void forEachSet(Visit&& visit) const;

  friend bool operator==(const Match&, const Match&) noexcept = default;
};
static_assert(static_cast<unsigned>(Match::Field::count_) <= 32, "a bit of `present` per field");

// What the line of a field says.
struct MatchFieldInfo {
  std::string_view name;
  Match::Field field;
  unsigned bits;  // of a masked field; 0 for a plain one
};

template <class Visit>
void Match::forEachSet(Visit&& visit) const {
#define OPENFLOW_VISIT(name, bits)                                  \
  if (has(Field::name##_)) {                                        \
    visit(MatchFieldInfo{#name, Field::name##_, bits}, this->name); \
  }
#define OPENFLOW_PLAIN_VISIT(name, Type) OPENFLOW_VISIT(name, 0)
#define OPENFLOW_MASKED_VISIT(name, Type, bits) OPENFLOW_VISIT(name, bits)
  OPENFLOW_MATCH_FIELDS(OPENFLOW_PLAIN_VISIT, OPENFLOW_MASKED_VISIT)
#undef OPENFLOW_PLAIN_VISIT
#undef OPENFLOW_MASKED_VISIT
#undef OPENFLOW_VISIT
}

}  // namespace OpenFlowTable
