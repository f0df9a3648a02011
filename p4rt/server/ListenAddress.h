// Where the server listens: HOST:PORT, or [IPV6]:PORT.
//
// Thread and process rule: a plain value; resolving a name may wait for the network.
#pragma once

#include <string>
#include <string_view>

namespace P4rt {

class ListenAddress {
 public:
  // Throws std::invalid_argument that says what is wrong when the text is no address or its host is
  // not known.
  explicit ListenAddress(std::string_view text);

  // Whether only this machine can reach it.
  [[nodiscard]] bool loopback() const noexcept { return loopback_; }
  // Why nobody can listen there now; empty when one can. It tries.
  [[nodiscard]] std::string fault() const;
  // With that port in place of its own.
  [[nodiscard]] std::string text(int port) const { return host_ + ":" + std::to_string(port); }
  [[nodiscard]] std::string text() const { return host_ + ":" + port_; }

 private:
  std::string host_;  // with the brackets of an IPv6 address
  std::string port_;
  bool loopback_ = true;
};

}  // namespace P4rt
