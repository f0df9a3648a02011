// Small integers with limits.
#pragma once

#include <compare>
#include <concepts>
#include <ostream>
#include <utility>

#include "platform/Korm/Exceptions.h"

namespace Korm {

// An integer within limits. `Limits` supplies `min` and `max`, which are both accepted, and
// `message`, the whole text of the exception for any other value.
template <class Int, class Limits>
class BoundedValue {
 public:
  using Number = Int;
  static constexpr Int min = Limits::min;
  static constexpr Int max = Limits::max;

  constexpr BoundedValue() noexcept = default;

  // Takes an integer of any width and sign, so that no conversion brings a bad value into the
  // limits.
  // Throws: RangeException for a value outside the limits.
  template <std::integral Wide>
  constexpr explicit BoundedValue(Wide value) : value_{static_cast<Int>(value)} {
    if (std::cmp_less(value, min) || std::cmp_greater(value, max)) [[unlikely]] {
      throwRangeException(Limits::message);
    }
  }

  [[nodiscard]] constexpr Int value() const noexcept { return value_; }

  friend constexpr auto operator<=>(const BoundedValue&, const BoundedValue&) noexcept = default;
  friend std::ostream& operator<<(std::ostream& out, const BoundedValue& value) {
    return out << static_cast<long long>(value.value_);
  }

 private:
  Int value_{};
};

}  // namespace Korm
