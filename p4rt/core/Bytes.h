// The byte strings in which P4Runtime encodes numbers: big-endian. The server sends the shortest
// form, and accepts any number of leading zero bytes (P4Runtime 1.4.1, 8.4).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace P4rt {

// A number of up to 128 bits, the width of the widest match field.
struct Bits {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  [[nodiscard]] constexpr bool isZero() const noexcept { return (high | low) == 0; }
  // Whether every bit that is set here is set in `mask` too.
  [[nodiscard]] constexpr bool within(const Bits& mask) const noexcept {
    return (high & ~mask.high) == 0 && (low & ~mask.low) == 0;
  }
  // Whether the number fits in `width` bits.
  // Requires: `width` is 1 to 128.
  [[nodiscard]] constexpr bool fits(int width) const noexcept { return within(allOnes(width)); }
  // The largest number of that width.
  [[nodiscard]] static constexpr Bits allOnes(int width) noexcept {
    constexpr std::uint64_t ones = ~std::uint64_t{0};
    if (width > 64) {
      return {width >= 128 ? ones : ones >> static_cast<unsigned>(128 - width), ones};
    }
    return {0, ones >> static_cast<unsigned>(64 - width)};
  }

  friend constexpr bool operator==(const Bits&, const Bits&) noexcept = default;
};

// Nothing for an empty string, and for a number that needs more than `width` bits.
[[nodiscard]] std::optional<Bits> parseBytes(std::string_view bytes, int width) noexcept;

// The shortest form. Zero is one byte.
[[nodiscard]] std::string canonicalBytes(const Bits& bits);
// The shortest form of a byte string.
// Requires: `bytes` is not empty.
[[nodiscard]] std::string_view canonicalBytes(std::string_view bytes) noexcept;

}  // namespace P4rt
