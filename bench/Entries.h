// Flow entries for the benchmarks: realistic, varied, and the same in every run.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Ostra/OstraTypes.h"

namespace Bench {

inline constexpr std::uint32_t vrfs = 64;
inline constexpr std::uint32_t ports = 128;

// The match of the n-th entry, which no other entry has.
inline Ostra::OstraKey makeKey(std::uint32_t n) {
  using Korm::Ip4Addr;
  using Korm::Ip6Addr;
  using Korm::IpAddr;
  const auto byte = [n](unsigned at) { return static_cast<std::uint8_t>(n >> (8 * at)); };
  Ostra::OstraKey key;
  key.priorityIs(static_cast<std::int32_t>(n % 1000));
  switch (n % 4) {
    case 0:
      key.etherTypeIs(Ostra::EtherType::ipv4, 0xFFFF);
      key.ip4DstIs(IpAddr{Ip4Addr{{byte(0), byte(1), byte(2), byte(3)}}},
                   IpAddr::prefixMask(Korm::AddressFamily::ipv4_, 32));
      key.dscpIs(static_cast<std::uint8_t>(n % 64), 0x3F);
      break;
    case 1:
      key.etherTypeIs(Ostra::EtherType::ipv6, 0xFFFF);
      key.ip6SrcIs(IpAddr{Ip6Addr{{0x20, 0x01, 0x0D, 0xB8, byte(0), byte(1), byte(2), byte(3)}}},
                   IpAddr::prefixMask(Korm::AddressFamily::ipv6_, 128));
      key.nextHeaderIs(6, 0xFF);
      break;
    case 2:
      key.ethDstIs({{2, 0, byte(0), byte(1), byte(2), byte(3)}}, Korm::EthAddr::allOnes());
      key.vlanIdIs(static_cast<std::uint16_t>(n % 4095), 0x0FFF);
      break;
    default:
      key.etherTypeIs(Ostra::EtherType::ipv4, 0xFFFF);
      key.ip4SrcIs(IpAddr{Ip4Addr{{10, byte(2), byte(3), 0}}},
                   IpAddr::prefixMask(Korm::AddressFamily::ipv4_, 24));
      key.ip4ProtocolIs(17, 0xFF);
      key.l4DstPortIs(static_cast<std::uint16_t>(n), 0xFFFF);
      key.l4SrcPortIs(static_cast<std::uint16_t>(n >> 16), 0xFFFF);
      break;
  }
  return key;
}

// The n-th entry: a mix of IPv4 prefixes, IPv6 hosts, layer-2 stations and transport flows, some of
// which are placed in a VRF.
inline Ostra::OstraConfigEntry makeEntry(std::uint32_t n) {
  Ostra::OstraConfigEntry entry;
  entry.flowKey = makeKey(n);
  entry.entryHandle = std::uint64_t{n} + 1;
  entry.entryId = n + 1;
  entry.outputPortIs(1 + n % ports);
  entry.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(static_cast<std::uint8_t>(n % 8),
                                                                  n % 2 == 0);
  entry.vrfGiven = n % 4 == 0;
  entry.vrfId = n % vrfs;
  return entry;
}

// Puts the elements into a random order that is the same in every run. A benchmark walks them in
// the order in which they lie in memory, as a service walks requests that it has just read. So it
// measures the access to what is stored, not to the requests.
template <class T>
void shuffle(std::vector<T>& all, std::uint32_t seed = 1) {
  std::shuffle(all.begin(), all.end(), std::mt19937{seed});
}

// The numbers from 0 to count - 1 in such an order.
inline std::vector<std::uint32_t> shuffled(std::size_t count, std::uint32_t seed = 1) {
  std::vector<std::uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  shuffle(order, seed);
  return order;
}

inline std::vector<Ostra::OstraConfigEntry> makeEntries(std::size_t count) {
  std::vector<Ostra::OstraConfigEntry> entries;
  entries.reserve(count);
  for (std::uint32_t n = 0; n < count; ++n) {
    entries.push_back(makeEntry(n));
  }
  shuffle(entries);
  return entries;
}

// Maps all ports of the entries.
template <class Mapping>
void mapPorts(Mapping& mapping) {
  for (std::uint32_t port = 1; port <= ports; ++port) {
    mapping.portIs(port, Interface::IntfId{"Ethernet" + std::to_string(port)});
  }
}

}  // namespace Bench
