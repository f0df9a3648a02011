// The address on which the server listens: HOST:PORT, or [IPV6]:PORT.
#pragma once

#include <string>
#include <string_view>

namespace P4rt {

class ListenAddress {
 public:
  // Resolves the host, which may wait for the network.
  // Throws: std::invalid_argument when the text is no address or the host is unknown.
  explicit ListenAddress(std::string_view text);

  // Whether every address of the host is a loopback address, which only this machine can reach.
  [[nodiscard]] bool loopback() const noexcept { return loopback_; }
  // Tries to bind a socket to the address. Returns why that fails, or an empty string.
  // Throws: std::invalid_argument when the host is unknown.
  [[nodiscard]] std::string fault() const;
  // The address with another port.
  [[nodiscard]] std::string text(int port) const { return host_ + ":" + std::to_string(port); }
  [[nodiscard]] std::string text() const { return host_ + ":" + port_; }

 private:
  std::string host_;  // an IPv6 address has its brackets
  std::string port_;
  bool loopback_ = true;
};

}  // namespace P4rt
