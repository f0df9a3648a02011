#include "p4rt/core/Bytes.h"

#include <array>

namespace P4rt {

std::optional<Bits> parseBytes(std::string_view bytes, int width) noexcept {
  if (bytes.empty()) {
    return std::nullopt;
  }
  const std::string_view digits = canonicalBytes(bytes);
  if (digits.size() > 16) {
    return std::nullopt;
  }
  Bits bits;
  for (const char digit : digits) {
    bits.high = bits.high << 8U | bits.low >> 56U;
    bits.low = bits.low << 8U | static_cast<std::uint8_t>(digit);
  }
  return bits.fits(width) ? std::optional{bits} : std::nullopt;
}

std::string canonicalBytes(const Bits& bits) {
  std::array<char, 16> octets{};
  for (unsigned at = 0; at < 8; ++at) {
    octets[at] = static_cast<char>(bits.high >> (56U - 8U * at));
    octets[8 + at] = static_cast<char>(bits.low >> (56U - 8U * at));
  }
  return std::string{canonicalBytes(std::string_view{octets.data(), octets.size()})};
}

std::string_view canonicalBytes(std::string_view bytes) noexcept {
  const std::size_t first = bytes.find_first_not_of('\0');
  bytes.remove_prefix(first == std::string_view::npos ? bytes.size() - 1 : first);
  return bytes;
}

}  // namespace P4rt
