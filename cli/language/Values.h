// Values of the command language. Each function parses a word; `what` names the value in messages.
// Throws: CommandError, which says what was expected, for anything that is not such a value.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"

namespace Cli {

// A value and a mask of the bits that must match.
template <class T>
struct ValueAndMask {
  T value{};
  T mask{};
};

namespace detail {
[[nodiscard]] std::uint64_t parseUnsigned(std::string_view text, std::string_view what,
                                          std::uint64_t max);
[[nodiscard]] std::int64_t parseSigned(std::string_view text, std::string_view what,
                                       std::int64_t min, std::int64_t max);
}  // namespace detail

// A number, decimal or 0x hexadecimal, that the type can hold.
template <std::integral T>
[[nodiscard]] T parseNumber(std::string_view text, std::string_view what,
                            T max = std::numeric_limits<T>::max()) {
  if constexpr (std::is_signed_v<T>) {
    return static_cast<T>(detail::parseSigned(text, what, std::numeric_limits<T>::min(), max));
  } else {
    return static_cast<T>(detail::parseUnsigned(text, what, max));
  }
}

// Numbers separated by commas. An empty text is an empty list.
[[nodiscard]] std::vector<std::uint32_t> parseNumbers(std::string_view text, std::string_view what);

[[nodiscard]] bool parseBool(std::string_view text, std::string_view what);
[[nodiscard]] Korm::EthAddr parseMac(std::string_view text, std::string_view what);
// An address of that family; `none_` means of either.
[[nodiscard]] Korm::IpAddr parseIp(std::string_view text, std::string_view what,
                                   Korm::AddressFamily family = Korm::AddressFamily::none_);
[[nodiscard]] Interface::IntfId parseInterface(std::string_view text, std::string_view what);

// VALUE, VALUE&MASK or, for an address, VALUE/LENGTH. The default mask is all ones.
[[nodiscard]] ValueAndMask<bool> parseMaskedBool(std::string_view text, std::string_view what);
[[nodiscard]] ValueAndMask<Korm::EthAddr> parseMaskedMac(std::string_view text,
                                                         std::string_view what);
[[nodiscard]] ValueAndMask<Korm::IpAddr> parseMaskedIp(
    std::string_view text, std::string_view what,
    Korm::AddressFamily family = Korm::AddressFamily::none_);
// `exactMask` is the default mask, and `max` the largest value and mask.
template <std::unsigned_integral T>
[[nodiscard]] ValueAndMask<T> parseMaskedNumber(std::string_view text, std::string_view what,
                                                T exactMask, T max) {
  const std::size_t sign = text.find('&');
  return {parseNumber<T>(text.substr(0, sign), what, max),
          sign == std::string_view::npos ? exactMask
                                         : parseNumber<T>(text.substr(sign + 1), what, max)};
}

}  // namespace Cli
