#include "platform/Korm/Address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <ostream>

#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Text.h"

namespace Korm {
namespace {

using Groups = std::array<unsigned, 8>;

struct Run {
  std::size_t first = 0;
  std::size_t length = 0;
};

// The zero groups that "::" stands for: the first of the longest runs, if that is longer than one.
Run longestZeroRun(const Groups& groups) {
  Run longest;
  Run current;
  for (std::size_t at = 0; at < groups.size(); ++at) {
    current = groups[at] != 0 ? Run{at + 1, 0} : Run{current.first, current.length + 1};
    if (current.length > longest.length) {
      longest = current;
    }
  }
  return longest.length > 1 ? longest : Run{};
}

}  // namespace

std::string EthAddr::text() const {
  std::string text;
  for (const std::uint8_t octet : octets) {
    if (!text.empty()) {
      text += ':';
    }
    appendHex(text, octet);
  }
  return text;
}

std::string Ip4Addr::text() const {
  std::string text = std::to_string(octets[0]);
  for (std::size_t at = 1; at < octets.size(); ++at) {
    text += '.' + std::to_string(octets[at]);
  }
  return text;
}

// Not inet_ntop, which prints the last 32 bits of "::1:2" as an IPv4 address.
std::string Ip6Addr::text() const {
  Groups groups{};
  for (std::size_t at = 0; at < groups.size(); ++at) {
    groups[at] = octets[at * 2] * 256U + octets[at * 2 + 1];
  }
  const Run zeros = longestZeroRun(groups);
  std::string text;
  for (std::size_t at = 0; at < groups.size(); ++at) {
    if (zeros.length > 0 && at == zeros.first) {
      text += "::";
      at += zeros.length - 1;
      continue;
    }
    if (!text.empty() && text.back() != ':') {
      text += ':';
    }
    std::array<char, 4> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), groups[at], 16);
    text.append(digits.data(), end.ptr);
  }
  return text;
}

IpAddr IpAddr::prefixMask(AddressFamily family, unsigned length) {
  const unsigned width = family == AddressFamily::ipv4_   ? 32
                         : family == AddressFamily::ipv6_ ? 128
                                                          : 0;
  if (length > width) {
    throwRangeException("IpAddr::prefixMask length " + std::to_string(length) + " > " +
                        std::to_string(width) + " not allowed");
  }
  IpAddr mask;
  mask.family_ = family;
  for (unsigned at = 0; at < mask.octets_.size() && length > 0; ++at) {
    const unsigned bits = std::min(length, 8U);
    mask.octets_[at] = static_cast<std::uint8_t>(0xFF00U >> bits);
    length -= bits;
  }
  return mask;
}

std::string IpAddr::text() const {
  switch (family_) {
    case AddressFamily::ipv4_:
      return ip4().text();
    case AddressFamily::ipv6_:
      return ip6().text();
    case AddressFamily::none_:
      break;
  }
  return "-";
}

std::ostream& operator<<(std::ostream& out, const EthAddr& address) {
  return out << address.text();
}
std::ostream& operator<<(std::ostream& out, const Ip4Addr& address) {
  return out << address.text();
}
std::ostream& operator<<(std::ostream& out, const Ip6Addr& address) {
  return out << address.text();
}
std::ostream& operator<<(std::ostream& out, const IpAddr& address) { return out << address.text(); }

std::optional<EthAddr> parseEthAddr(std::string_view text) {
  constexpr std::size_t length = 17;
  if (text.size() != length) {
    return std::nullopt;
  }
  EthAddr address;
  for (std::size_t at = 0; at < address.octets.size(); ++at) {
    const char* const digits = text.data() + at * 3;
    const auto [end, error] = std::from_chars(digits, digits + 2, address.octets[at], 16);
    if (error != std::errc{} || end != digits + 2 ||
        (at + 1 < address.octets.size() && *end != ':')) {
      return std::nullopt;
    }
  }
  return address;
}

std::optional<IpAddr> parseIpAddr(std::string_view text) {
  const std::string terminated{text};
  if (terminated.size() != std::string_view{terminated.c_str()}.size()) {
    return std::nullopt;
  }
  if (Ip4Addr address; inet_pton(AF_INET, terminated.c_str(), address.octets.data()) == 1) {
    return IpAddr{address};
  }
  if (Ip6Addr address; inet_pton(AF_INET6, terminated.c_str(), address.octets.data()) == 1) {
    return IpAddr{address};
  }
  return std::nullopt;
}

}  // namespace Korm
