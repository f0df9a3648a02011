// Ethernet and IP addresses.
//
// The types are trivially copyable and have no padding, so that they can be stored in shared memory
// and compared as bytes.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Korm {

// An IEEE 802 48-bit address.
struct EthAddr {
  std::array<std::uint8_t, 6> octets{};

  [[nodiscard]] static constexpr EthAddr allOnes() noexcept {
    return {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
  }
  [[nodiscard]] constexpr bool isZero() const noexcept { return *this == EthAddr{}; }
  [[nodiscard]] std::string text() const;  // "02:00:00:00:00:05"
  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) noexcept = default;
};

struct Ip4Addr {
  std::array<std::uint8_t, 4> octets{};  // network order

  [[nodiscard]] constexpr bool isZero() const noexcept { return *this == Ip4Addr{}; }
  [[nodiscard]] std::string text() const;
  friend constexpr auto operator<=>(const Ip4Addr&, const Ip4Addr&) noexcept = default;
};

struct Ip6Addr {
  std::array<std::uint8_t, 16> octets{};  // network order

  [[nodiscard]] constexpr bool isZero() const noexcept { return *this == Ip6Addr{}; }
  [[nodiscard]] std::string text() const;  // lower case, compressed (RFC 5952)
  friend constexpr auto operator<=>(const Ip6Addr&, const Ip6Addr&) noexcept = default;
};

enum class AddressFamily : std::uint8_t { none_ = 0, ipv4_ = 4, ipv6_ = 6 };

// An IPv4 or an IPv6 address, or none, which is the default. The octets behind an IPv4 address are
// zero.
class IpAddr {
 public:
  constexpr IpAddr() noexcept = default;
  constexpr explicit IpAddr(const Ip4Addr& address) noexcept : family_{AddressFamily::ipv4_} {
    for (std::size_t at = 0; at < address.octets.size(); ++at) {
      octets_[at] = address.octets[at];
    }
  }
  constexpr explicit IpAddr(const Ip6Addr& address) noexcept
      : family_{AddressFamily::ipv6_}, octets_{address.octets} {}

  // The mask of `length` leading ones.
  // Throws: Korm::RangeException for a length above the family's width: 32, 128, or 0 for no
  // family.
  [[nodiscard]] static IpAddr prefixMask(AddressFamily family, unsigned length);

  [[nodiscard]] constexpr AddressFamily family() const noexcept { return family_; }
  // Whether all octets are zero, whatever the family.
  [[nodiscard]] constexpr bool isZero() const noexcept {
    return octets_ == std::array<std::uint8_t, 16>{};
  }
  // The address if it is of that family, otherwise the zero address.
  [[nodiscard]] constexpr Ip4Addr ip4() const noexcept {
    return family_ == AddressFamily::ipv4_
               ? Ip4Addr{{octets_[0], octets_[1], octets_[2], octets_[3]}}
               : Ip4Addr{};
  }
  [[nodiscard]] constexpr Ip6Addr ip6() const noexcept {
    return family_ == AddressFamily::ipv6_ ? Ip6Addr{octets_} : Ip6Addr{};
  }
  [[nodiscard]] std::string text() const;  // "-" for no family

  friend constexpr auto operator<=>(const IpAddr&, const IpAddr&) noexcept = default;

 private:
  AddressFamily family_ = AddressFamily::none_;
  std::array<std::uint8_t, 16> octets_{};
};

std::ostream& operator<<(std::ostream& out, const EthAddr& address);
std::ostream& operator<<(std::ostream& out, const Ip4Addr& address);
std::ostream& operator<<(std::ostream& out, const Ip6Addr& address);
std::ostream& operator<<(std::ostream& out, const IpAddr& address);

// Parse a text; nothing when it is not such an address. Leading zeros in a decimal part are
// refused.
[[nodiscard]] std::optional<EthAddr> parseEthAddr(std::string_view text);
[[nodiscard]] std::optional<IpAddr> parseIpAddr(std::string_view text);

}  // namespace Korm
