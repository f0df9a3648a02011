#include "p4rt/server/ListenAddress.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace P4rt {
namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// Throws: std::invalid_argument when the host is unknown.
Addresses resolve(std::string host, const std::string& port) {
  if (host.starts_with('[')) {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
    throw std::invalid_argument{"the host '" + host + "' is not known: " + ::gai_strerror(error)};
  }
  return {found, &::freeaddrinfo};
}

bool isLoopback(const addrinfo& address) {
  if (address.ai_family == AF_INET) {
    constexpr std::uint32_t loopbackNet = 127;
    const auto& ip4 = *reinterpret_cast<const sockaddr_in*>(address.ai_addr);
    return ntohl(ip4.sin_addr.s_addr) >> 24U == loopbackNet;
  }
  const auto& ip6 = *reinterpret_cast<const sockaddr_in6*>(address.ai_addr);
  return address.ai_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&ip6.sin6_addr);
}

// Tries to bind a socket to the address. Returns the error number, 0 for success.
int tryAddress(const addrinfo& address) {
  const int socket = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) {
    return errno;
  }
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const int error = ::bind(socket, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
  ::close(socket);
  return error;
}

}  // namespace

ListenAddress::ListenAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  const bool bracketed = text.starts_with('[');
  if (colon == std::string_view::npos || colon == 0 || (bracketed && text[colon - 1] != ']') ||
      (!bracketed && text.find(':') != colon)) {
    throw std::invalid_argument{"an address has the form HOST:PORT or [IPV6]:PORT"};
  }
  host_ = text.substr(0, colon);
  port_ = text.substr(colon + 1);
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(port_.data(), port_.data() + port_.size(), port);
  if (error != std::errc{} || end != port_.data() + port_.size()) {
    throw std::invalid_argument{"a port is a number from 0 to 65535"};
  }
  const Addresses addresses = resolve(host_, port_);
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    loopback_ = loopback_ && isLoopback(*address);
  }
}

std::string ListenAddress::fault() const {
  const Addresses addresses = resolve(host_, port_);
  int error = 0;
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    error = tryAddress(*address);
    if (error == 0) {
      return {};
    }
  }
  return std::generic_category().message(error);
}

}  // namespace P4rt
