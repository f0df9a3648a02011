// Interfaces of the switch.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "platform/Korm/Entity.h"
#include "platform/Korm/Hash.h"

namespace Interface {

// The name of an interface, stored inline so that it can be in shared memory. The default is the
// empty id, which means no interface.
class IntfId {
 public:
  static constexpr std::size_t maxLength = 23;

  constexpr IntfId() noexcept = default;
  // Throws: Korm::RangeException for a name longer than maxLength.
  explicit IntfId(std::string_view name);

  // Never longer than maxLength, even when a damaged row says so.
  [[nodiscard]] std::string_view name() const noexcept {
    return {name_.data(), std::min<std::size_t>(length_, maxLength)};
  }
  // The first two letters and the number: "Et1" for "Ethernet1". Names of another form stay as they
  // are.
  [[nodiscard]] IntfId shortName() const;
  [[nodiscard]] bool empty() const noexcept { return length_ == 0; }

  friend auto operator<=>(const IntfId&, const IntfId&) noexcept = default;
  friend std::ostream& operator<<(std::ostream& out, const IntfId& intf) {
    return out << intf.name();
  }
  friend std::string_view brisklogArgument(const IntfId& intf) noexcept { return intf.name(); }

 private:
  std::array<char, maxLength> name_{};
  std::uint8_t length_ = 0;
};

// The status of all interfaces, by name.
class AllIntfStatusDir final : public Korm::NamedEntity {
 public:
  using NamedEntity::NamedEntity;
};

}  // namespace Interface
