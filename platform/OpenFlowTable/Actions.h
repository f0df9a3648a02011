// What a flow, or a bucket of a group, does.
//
// Actions are trivially copyable and have no padding, because the service stores them in shared
// memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "platform/Bridging/Bridging.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"
#include "platform/Korm/BoundedValue.h"
#include "platform/Korm/Packed.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/Vrf/Vrf.h"

namespace OpenFlowTable {

enum class PolicerColor : std::uint8_t { green_ = 0, yellow_ = 1, red_ = 2 };

struct PolicerConfig {
  std::uint64_t rate = 0;                     // kbit/s
  std::uint64_t burst = 0;                    // bytes
  std::array<std::uint8_t, 8> dropByColor{};  // by PolicerColor: 1 drops packets of that colour

  friend bool operator==(const PolicerConfig&, const PolicerConfig&) noexcept = default;
};

// How packets are encapsulated on their way out. `type` is one of the routing feature's
// encapsulation types.
struct EncapInfo {
  Korm::Ip4Addr src;
  Korm::Ip4Addr dst;
  std::uint8_t type = 0;
  std::uint8_t ttl = 0;
  std::uint8_t dscp = 0;
  std::uint8_t reserved = 0;

  friend bool operator==(const EncapInfo&, const EncapInfo&) noexcept = default;
};

// Fixed header bytes that an encapsulation needs.
using FixedBlock = std::array<std::uint8_t, 8>;

// Where the value of a flow's action comes from.
enum class ActionRule : std::uint8_t {
  copied_,    // as the controller gave it
  resolved_,  // the writer of the flow determines it from a port, a group or the like
};

// The actions: one line each, and nowhere else.
//
// VALUE is an action with a value, and FLAG one without. A line has the name of the accessor, which
// is also the name in all output, the type, the word of the action in the command language (empty
// if it has none), and the rule. A bounded type limits what the setter accepts. A writer of flows
// copies the actions in the order of the lines, which is also the order of all output.
#define OPENFLOW_ACTIONS(VALUE, FLAG)                                 \
  VALUE(trafficClass, TrafficClass, "traffic-class", copied_)         \
  FLAG(drop, "drop", copied_)                                         \
  FLAG(copyToCpu, "copy-to-cpu", copied_)                             \
  FLAG(decTtl, "dec-ttl", copied_)                                    \
  VALUE(setDscp, std::uint8_t, "set-dscp", copied_)                   \
  VALUE(setEthSrc, Korm::EthAddr, "set-eth-src", copied_)             \
  VALUE(setEthDst, Korm::EthAddr, "set-eth-dst", copied_)             \
  VALUE(ingrMirrorIntf, Interface::IntfId, "mirror-ingress", copied_) \
  VALUE(egrMirrorIntf, Interface::IntfId, "mirror-egress", copied_)   \
  VALUE(outputIntf, Interface::IntfId, "", resolved_)                 \
  VALUE(vrf, Vrf::VrfIdMap::VrfId, "", resolved_)                     \
  VALUE(vlanId, Bridging::VlanIdOrNone, "", resolved_)                \
  VALUE(policer, PolicerConfig, "policer", copied_)                   \
  VALUE(cpuTrafficClass, TrafficClass, "cpu-traffic-class", copied_)  \
  VALUE(group, GroupId, "", resolved_)                                \
  VALUE(encap, EncapInfo, "", copied_)                                \
  VALUE(dstMac, Korm::EthAddr, "", copied_)                           \
  VALUE(srcMac, Korm::EthAddr, "", copied_)                           \
  VALUE(fixedBlock, FixedBlock, "", copied_)

#define OPENFLOW_NUMBER(name, ...) name##_,
enum class Action : std::uint8_t { OPENFLOW_ACTIONS(OPENFLOW_NUMBER, OPENFLOW_NUMBER) count_ };
#undef OPENFLOW_NUMBER
static_assert(static_cast<unsigned>(Action::count_) <= 32, "a bit of ActionSet per action");

// The set of actions that are present.
class ActionSet {
 public:
  [[nodiscard]] constexpr bool has(Action action) const noexcept {
    return (bits_ & bit(action)) != 0;
  }
  constexpr void hasIs(Action action, bool present) noexcept {
    bits_ = present ? bits_ | bit(action) : bits_ & ~bit(action);
  }
  friend constexpr bool operator==(const ActionSet&, const ActionSet&) noexcept = default;

 private:
  [[nodiscard]] static constexpr std::uint32_t bit(Action action) noexcept {
    return 1U << static_cast<unsigned>(action);
  }
  std::uint32_t bits_ = 0;
};

// What the line of an action says.
struct ActionInfo {
  std::string_view name;
  std::string_view word;  // may be empty
  ActionRule rule;
};

namespace detail {

#define OPENFLOW_VALUE_INFO(name, Type, word, rule) ActionInfo{#name, word, ActionRule::rule},
#define OPENFLOW_FLAG_INFO(name, word, rule) ActionInfo{#name, word, ActionRule::rule},
inline constexpr std::array actionInfos{OPENFLOW_ACTIONS(OPENFLOW_VALUE_INFO, OPENFLOW_FLAG_INFO)};
#undef OPENFLOW_VALUE_INFO
#undef OPENFLOW_FLAG_INFO

// The type in the action's line; void for a flag.
template <Action action>
struct ActionTypeOf {
  using Type = void;
};
#define OPENFLOW_VALUE_TYPE(name, Value, ...) \
  template <>                                 \
  struct ActionTypeOf<Action::name##_> {      \
    using Type = Value;                       \
  };
#define OPENFLOW_FLAG_TYPE(...)
OPENFLOW_ACTIONS(OPENFLOW_VALUE_TYPE, OPENFLOW_FLAG_TYPE)
#undef OPENFLOW_VALUE_TYPE
#undef OPENFLOW_FLAG_TYPE

// The type in which a value is stored: that of the action, or the number that a bounded type
// limits.
template <class T>
struct StoredOf {
  using Type = T;
};
template <class T>
  requires requires { typename T::Number; }
struct StoredOf<T> {
  using Type = typename T::Number;
};
template <class T>
using StoredAs = typename StoredOf<T>::Type;

}  // namespace detail

[[nodiscard]] constexpr const ActionInfo& actionInfo(Action action) noexcept {
  return detail::actionInfos[static_cast<std::size_t>(action)];
}

template <Action action>
using ActionTag = std::integral_constant<Action, action>;
template <Action action>
using ActionType = typename detail::ActionTypeOf<action>::Type;
template <Action action>
inline constexpr bool isFlag = std::is_void_v<ActionType<action>>;

// Calls visit(ActionTag<action>{}) for each action, in the order of the lines.
template <class Visit>
constexpr void forEachAction(Visit&& visit) {
#define OPENFLOW_VISIT(name, ...) visit(ActionTag<Action::name##_>{});
  OPENFLOW_ACTIONS(OPENFLOW_VISIT, OPENFLOW_VISIT)
#undef OPENFLOW_VISIT
}

// The values of the actions and, in actionSet(), which of them are present.
//
// For each VALUE of OPENFLOW_ACTIONS there is an accessor `name()` and a mutator
// `nameIs(value, present)`; for each FLAG there is `nameIs(present)`. A value of a bounded type is
// stored as its plain number, because the service stores it unchecked (uncheckedIs). The mutators
// accept only the bounded type, so they keep the limits.
class Actions {
 public:
  [[nodiscard]] const ActionSet& actionSet() const noexcept { return set_; }
  [[nodiscard]] bool has(Action action) const noexcept { return set_.has(action); }

#define OPENFLOW_VALUE_ACCESS(name, Type, ...)                                           \
  [[nodiscard]] detail::StoredAs<Type> name() const noexcept { return name##_.value(); } \
  void name##Is(const Type& value, bool present) noexcept {                              \
    uncheckedIs<Action::name##_>(stored(value), present);                                \
  }
#define OPENFLOW_FLAG_ACCESS(name, ...) \
  void name##Is(bool present) noexcept { set_.hasIs(Action::name##_, present); }
  OPENFLOW_ACTIONS(OPENFLOW_VALUE_ACCESS, OPENFLOW_FLAG_ACCESS)
#undef OPENFLOW_VALUE_ACCESS
#undef OPENFLOW_FLAG_ACCESS

  // The value of an action; true for a flag.
  template <Action action>
  [[nodiscard]] auto value() const noexcept {
    if constexpr (isFlag<action>) {
      return true;
    } else {
      return place<action>(*this).value();
    }
  }
  template <Action action>
  void flagIs(bool present) noexcept {
    static_assert(isFlag<action>);
    set_.hasIs(action, present);
  }
  // For the service: stores a controller's value, which the translation checks later.
  template <Action action>
  void uncheckedIs(const detail::StoredAs<ActionType<action>>& value, bool present) noexcept {
    place<action>(*this).valueIs(value);
    set_.hasIs(action, present);
  }

  // Copies an action from `other` if it is present there.
  // Throws: Korm::RangeException, with nothing copied, for a value that the action's type refuses.
  template <Action action>
  void take(const Actions& other) {
    if (!other.has(action)) {
      return;
    }
    if constexpr (isFlag<action>) {
      set_.hasIs(action, true);
    } else {
      uncheckedIs<action>(stored(ActionType<action>{other.value<action>()}), true);
    }
  }

  // Calls visit(name, value) for each action that is present; the value of a flag is true.
  template <class Visit>
  void forEachPresent(Visit&& visit) const {
    forEachAction([&](auto action) {
      if (has(action)) {
        visit(actionInfo(action).name, value<action>());
      }
    });
  }

  friend bool operator==(const Actions& a, const Actions& b) noexcept {
    return std::memcmp(&a, &b, sizeof(Actions)) == 0;
  }

 private:
  template <class T>
  [[nodiscard]] static detail::StoredAs<T> stored(const T& value) noexcept {
    if constexpr (requires { typename T::Number; }) {
      return value.value();
    } else {
      return value;
    }
  }

  template <Action action, class Self>
  [[nodiscard]] static auto& place(Self& self) noexcept {
#define OPENFLOW_PLACE(name, ...)            \
  if constexpr (action == Action::name##_) { \
    return self.name##_;                     \
  } else
#define OPENFLOW_NO_PLACE(...)
    OPENFLOW_ACTIONS(OPENFLOW_PLACE, OPENFLOW_NO_PLACE) { return self.set_; }
#undef OPENFLOW_PLACE
#undef OPENFLOW_NO_PLACE
  }

  static constexpr std::size_t valueBytes = [] {
    std::size_t bytes = 0;
#define OPENFLOW_SIZE(name, Type, ...) bytes += sizeof(detail::StoredAs<Type>);
#define OPENFLOW_NO_SIZE(...)
    OPENFLOW_ACTIONS(OPENFLOW_SIZE, OPENFLOW_NO_SIZE)
#undef OPENFLOW_SIZE
#undef OPENFLOW_NO_SIZE
    return bytes;
  }();

  ActionSet set_;
#define OPENFLOW_STORAGE(name, Type, ...) Korm::Packed<detail::StoredAs<Type>> name##_;
#define OPENFLOW_NO_STORAGE(...)
  OPENFLOW_ACTIONS(OPENFLOW_STORAGE, OPENFLOW_NO_STORAGE)
#undef OPENFLOW_STORAGE
#undef OPENFLOW_NO_STORAGE
  // Pads the object to a multiple of eight bytes.
  std::array<std::byte, 8 - (sizeof(ActionSet) + valueBytes) % 8> reserved_{};
};
static_assert(std::is_trivially_copyable_v<Actions>);
static_assert(std::has_unique_object_representations_v<Actions>);

}  // namespace OpenFlowTable
