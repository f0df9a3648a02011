// The byte strings in which P4Runtime writes numbers: big-endian, without leading zero bytes in
// what the server says, with any number of them in what it is told (P4Runtime 1.4.1, 8.4).
//
// Thread and process rule: plain values and functions without state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace P4rt {

// A number of up to 128 bits, as wide as the widest match field.
struct Bits {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  [[nodiscard]] constexpr bool isZero() const noexcept { return (high | low) == 0; }
  // Whether no bit of this is outside of `mask`.
  [[nodiscard]] constexpr bool within(const Bits& mask) const noexcept {
    return (high & ~mask.high) == 0 && (low & ~mask.low) == 0;
  }
  // Whether the number fits into `width` bits, 1 to 128.
  [[nodiscard]] constexpr bool fits(int width) const noexcept { return within(allOnes(width)); }
  // The greatest number of that width.
  [[nodiscard]] static constexpr Bits allOnes(int width) noexcept {
    constexpr std::uint64_t ones = ~std::uint64_t{0};
    if (width > 64) {
      return {width >= 128 ? ones : ones >> static_cast<unsigned>(128 - width), ones};
    }
    return {0, ones >> static_cast<unsigned>(64 - width)};
  }

  friend constexpr bool operator==(const Bits&, const Bits&) noexcept = default;
};

// Nothing for an empty string and for a number that needs more than `width` bits.
[[nodiscard]] std::optional<Bits> parseBytes(std::string_view bytes, int width) noexcept;

// The shortest string; one byte for zero.
[[nodiscard]] std::string canonicalBytes(const Bits& bits);
// The same, made of a byte string that is not empty.
[[nodiscard]] std::string_view canonicalBytes(std::string_view bytes) noexcept;

}  // namespace P4rt
