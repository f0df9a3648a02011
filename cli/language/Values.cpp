#include "cli/language/Values.h"

#include <charconv>
#include <optional>
#include <string>

#include "cli/language/Words.h"

namespace Cli {
namespace {

using Korm::AddressFamily;

// For a mistake in a part of a word, which may be empty.
[[noreturn]] void throwBadValue(std::string_view read, std::string_view expected,
                                std::string_view what) {
  std::string message = "read ";
  message += read.empty() ? "no value" : quoted(read);
  message.append(", expected ").append(expected);
  if (!what.empty()) {
    message.append(" for ").append(what);
  }
  throw CommandError{message};
}

enum class DigitsFault { none_, notANumber_, tooLarge_ };

DigitsFault readDigits(std::string_view text, std::uint64_t& number) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (stop != end || error == std::errc::invalid_argument) {
    return DigitsFault::notANumber_;
  }
  return error == std::errc{} ? DigitsFault::none_ : DigitsFault::tooLarge_;
}

std::string rangeText(const std::string& min, const std::string& max) {
  return "a number from " + min + " to " + max;
}

const char* familyText(AddressFamily family) {
  switch (family) {
    case AddressFamily::ipv4_:
      return "an IPv4 address";
    case AddressFamily::ipv6_:
      return "an IPv6 address";
    case AddressFamily::none_:
      break;
  }
  return "an IP address";
}

unsigned addressBits(AddressFamily family) { return family == AddressFamily::ipv4_ ? 32 : 128; }

}  // namespace

std::uint64_t detail::parseUnsigned(std::string_view text, std::string_view what,
                                    std::uint64_t max) {
  std::uint64_t number = 0;
  if (readDigits(text, number) != DigitsFault::none_ || number > max) {
    throwBadValue(text, rangeText("0", std::to_string(max)), what);
  }
  return number;
}

std::int64_t detail::parseSigned(std::string_view text, std::string_view what, std::int64_t min,
                                 std::int64_t max) {
  const bool negative = text.starts_with('-');
  // The magnitude of the smallest number is one more than that of the largest.
  const auto limit = negative ? std::uint64_t{0} - static_cast<std::uint64_t>(min)
                              : static_cast<std::uint64_t>(max);
  std::uint64_t number = 0;
  if (readDigits(text.substr(negative ? 1 : 0), number) != DigitsFault::none_ || number > limit) {
    throwBadValue(text, rangeText(std::to_string(min), std::to_string(max)), what);
  }
  return static_cast<std::int64_t>(negative ? std::uint64_t{0} - number : number);
}

std::vector<std::uint32_t> parseNumbers(std::string_view text, std::string_view what) {
  std::vector<std::uint32_t> numbers;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    numbers.push_back(parseNumber<std::uint32_t>(text.substr(0, comma), what));
    if (comma == std::string_view::npos) {
      break;
    }
    text.remove_prefix(comma + 1);
    if (text.empty()) {
      throwBadValue({}, "a number behind the last comma", what);
    }
  }
  return numbers;
}

bool parseBool(std::string_view text, std::string_view what) {
  if (text != "true" && text != "false") {
    throwBadValue(text, "true or false", what);
  }
  return text == "true";
}

Korm::EthAddr parseMac(std::string_view text, std::string_view what) {
  const auto address = Korm::parseEthAddr(text);
  if (!address) {
    throwBadValue(text, "a MAC address such as 02:00:00:00:00:05", what);
  }
  return *address;
}

Korm::IpAddr parseIp(std::string_view text, std::string_view what, AddressFamily family) {
  const auto address = Korm::parseIpAddr(text);
  if (!address || (family != AddressFamily::none_ && address->family() != family)) {
    throwBadValue(text, familyText(family), what);
  }
  return *address;
}

Interface::IntfId parseInterface(std::string_view text, std::string_view what) {
  if (text.empty() || text.size() > Interface::IntfId::maxLength) {
    throwBadValue(text,
                  "the name of an interface, of at most " +
                      std::to_string(Interface::IntfId::maxLength) + " characters",
                  what);
  }
  return Interface::IntfId{text};
}

ValueAndMask<bool> parseMaskedBool(std::string_view text, std::string_view what) {
  const std::size_t sign = text.find('&');
  return {parseBool(text.substr(0, sign), what),
          sign == std::string_view::npos || parseBool(text.substr(sign + 1), what)};
}

ValueAndMask<Korm::EthAddr> parseMaskedMac(std::string_view text, std::string_view what) {
  const std::size_t sign = text.find('&');
  return {parseMac(text.substr(0, sign), what), sign == std::string_view::npos
                                                    ? Korm::EthAddr::allOnes()
                                                    : parseMac(text.substr(sign + 1), what)};
}

ValueAndMask<Korm::IpAddr> parseMaskedIp(std::string_view text, std::string_view what,
                                         AddressFamily family) {
  const std::size_t sign = text.find_first_of("&/");
  const Korm::IpAddr value = parseIp(text.substr(0, sign), what, family);
  const unsigned bits = addressBits(value.family());
  if (sign == std::string_view::npos) {
    return {value, Korm::IpAddr::prefixMask(value.family(), bits)};
  }
  const std::string_view mask = text.substr(sign + 1);
  if (text[sign] == '&') {
    return {value, parseIp(mask, what, value.family())};
  }
  std::uint64_t length = 0;
  if (readDigits(mask, length) != DigitsFault::none_ || length > bits) {
    throwBadValue(mask, "a prefix length from 0 to " + std::to_string(bits), what);
  }
  return {value, Korm::IpAddr::prefixMask(value.family(), static_cast<unsigned>(length))};
}

}  // namespace Cli
