#include "platform/Vasta/Crc32c.h"

#include <array>
#include <cstring>

namespace Vasta {
namespace {

constexpr std::uint32_t reflectedPolynomial = 0x82F63B78U;

using Slices = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr Slices makeSlices() {
  Slices slices{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t sum = byte;
    for (int bit = 0; bit < 8; ++bit) {
      sum = (sum >> 1) ^ ((sum & 1U) != 0 ? reflectedPolynomial : 0U);
    }
    slices[0][byte] = sum;
  }
  for (std::size_t slice = 1; slice < slices.size(); ++slice) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t sum = slices[slice - 1][byte];
      slices[slice][byte] = (sum >> 8) ^ slices[0][sum & 0xFFU];
    }
  }
  return slices;
}

constexpr Slices slices = makeSlices();

}  // namespace

std::uint32_t crc32cByTable(const void* data, std::size_t size, std::uint32_t previous) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint32_t sum = ~previous;
  for (; size >= 8; size -= 8, bytes += 8) {
    std::uint32_t next = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      next ^= slices[7 - i][((sum >> (8 * i)) & 0xFFU) ^ bytes[i]];
      next ^= slices[3 - i][bytes[4 + i]];
    }
    sum = next;
  }
  for (; size > 0; --size, ++bytes) {
    sum = (sum >> 8) ^ slices[0][(sum ^ *bytes) & 0xFFU];
  }
  return ~sum;
}

std::uint32_t crc32c(const void* data, std::size_t size, std::uint32_t previous) noexcept {
  static const Crc32cFunction chosen =
      crc32cInstruction() != nullptr ? crc32cInstruction() : &crc32cByTable;
  return chosen(data, size, previous);
}

}  // namespace Vasta
