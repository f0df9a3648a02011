// Texts of bytes, numbers and enumerations.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Korm {

// Two hexadecimal digits.
inline void appendHex(std::string& text, std::uint8_t byte) {
  constexpr std::string_view digits = "0123456789abcdef";
  text += digits[byte >> 4U];
  text += digits[byte & 0xFU];
}

// Two hexadecimal digits for each byte.
[[nodiscard]] inline std::string hexText(const void* data, std::size_t size) {
  std::string text;
  text.reserve(2 * size);
  for (std::size_t at = 0; at < size; ++at) {
    appendHex(text, static_cast<const std::uint8_t*>(data)[at]);
  }
  return text;
}

// "0x" and as many digits as the number needs.
[[nodiscard]] inline std::string hexNumber(std::uint64_t number) {
  std::string text;
  for (int shift = 56; shift >= 0; shift -= 8) {
    appendHex(text, static_cast<std::uint8_t>(number >> shift));
  }
  const std::size_t first = text.find_first_not_of('0');
  return "0x" + (first == std::string::npos ? "0" : text.substr(first));
}

// The texts of an enumeration: one line for each value that has one.
template <class Enum, std::size_t count>
using EnumTexts = std::array<std::pair<Enum, std::string_view>, count>;

// `otherwise` for a value without a text.
template <class Enum, std::size_t count>
[[nodiscard]] constexpr std::string_view enumText(const EnumTexts<Enum, count>& texts, Enum value,
                                                  std::string_view otherwise = {}) noexcept {
  for (const auto& [named, text] : texts) {
    if (named == value) {
      return text;
    }
  }
  return otherwise;
}

// Whether each value from 0 to `last` has a text, for a static assertion.
template <class Enum, std::size_t count>
[[nodiscard]] constexpr bool hasAllTexts(const EnumTexts<Enum, count>& texts, Enum last) noexcept {
  for (std::size_t value = 0; value <= static_cast<std::size_t>(last); ++value) {
    if (enumText(texts, static_cast<Enum>(value)).empty()) {
      return false;
    }
  }
  return true;
}

}  // namespace Korm
