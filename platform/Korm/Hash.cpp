#include "platform/Korm/Hash.h"

#include <cstring>

namespace Korm {
namespace {

// Odd constants with an even spread of bits; each lane of a block has its own.
constexpr std::uint64_t laneA = 0x9FB21C651E98DF25U;
constexpr std::uint64_t laneB = 0xD6E8FEB86659FD93U;
constexpr std::uint64_t laneC = 0xA0761D6478BD642FU;
constexpr std::uint64_t laneD = 0x91D93080F9B439FDU;

__extension__ using Wide = unsigned __int128;

std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t load(const unsigned char* at) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, at, sizeof(word));
  return word;
}

}  // namespace

// Folds 16 bytes a multiplication, in independent chains so that the multiplier stays busy.
std::uint64_t hashBytes(const void* data, std::size_t size, std::uint64_t seed) noexcept {
  const auto* at = static_cast<const unsigned char*>(data);
  std::uint64_t first = seed ^ laneC ^ (size * laneA);
  std::uint64_t second = first;
  std::size_t left = size;
  if (left >= 64) {
    std::uint64_t third = first;
    std::uint64_t fourth = first;
    for (; left >= 64; left -= 64, at += 64) {
      first = fold(load(at) ^ laneA, load(at + 8) ^ first);
      second = fold(load(at + 16) ^ laneB, load(at + 24) ^ second);
      third = fold(load(at + 32) ^ laneC, load(at + 40) ^ third);
      fourth = fold(load(at + 48) ^ laneD, load(at + 56) ^ fourth);
    }
    first ^= third;
    second ^= fourth;
  }
  if (left >= 32) {
    first = fold(load(at) ^ laneA, load(at + 8) ^ first);
    second = fold(load(at + 16) ^ laneB, load(at + 24) ^ second);
    left -= 32;
    at += 32;
  }
  if (left >= 16) {
    first = fold(load(at) ^ laneA, load(at + 8) ^ first);
    left -= 16;
    at += 16;
  }
  if (left >= 8) {
    second = fold(load(at) ^ laneB, second ^ laneA);
    left -= 8;
    at += 8;
  }
  if (left > 0) {
    first = fold(loadPart(at, left) ^ laneA, first ^ laneB);
  }
  return fold(first ^ laneB, second ^ laneC);
}

}  // namespace Korm
