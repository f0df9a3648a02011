// Addresses as arguments of trace points: their octets in the binary record.
#pragma once

#include "platform/Brisklog/Argument.h"
#include "platform/Korm/Address.h"

namespace Korm {

inline Brisklog::Bytes brisklogArgument(const EthAddr& address) noexcept {
  return {address.octets.data(), address.octets.size()};
}
inline Brisklog::Bytes brisklogArgument(const Ip4Addr& address) noexcept {
  return {address.octets.data(), address.octets.size()};
}
inline Brisklog::Bytes brisklogArgument(const Ip6Addr& address) noexcept {
  return {address.octets.data(), address.octets.size()};
}

}  // namespace Korm
