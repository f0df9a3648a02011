// The one source of this library that depends on the processor, hence its conditional compilation:
// elsewhere there is no instruction to offer and the tables do the work.
#include "platform/Vasta/Crc32c.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>
#include <cstring>

namespace Vasta {
namespace {

constexpr std::uint32_t reflectedPolynomial = 0x82F63B78U;

// The instruction takes three cycles but one can start in each: three streams run side by side over
// thirds of the data. Streams longer than this many words gain nothing more.
constexpr std::size_t maximumStreamWords = 64;
constexpr std::size_t minimumStreamWords = 6;

// Element k shifts a sum over k words of zeros: x^(64k - 33) modulo the polynomial, reflected. The 33
// is what the carry-less product (1) and its reduction by the instruction (32) add.
using ShiftFactors = std::array<std::uint32_t, 2 * maximumStreamWords + 1>;

constexpr ShiftFactors makeShiftFactors() {
  ShiftFactors factors{};
  std::uint32_t power = 1;  // x^31
  for (std::size_t words = 1; words < factors.size(); ++words) {
    factors[words] = power;
    for (int bit = 0; bit < 64; ++bit) {
      power = (power >> 1) ^ ((power & 1U) != 0 ? reflectedPolynomial : 0U);
    }
  }
  return factors;
}

constexpr ShiftFactors shiftFactors = makeShiftFactors();

std::uint64_t wordAt(const unsigned char* bytes, std::size_t word) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes + 8 * word, sizeof value);
  return value;
}

[[gnu::target("sse4.2,pclmul")]] std::uint64_t shifted(std::uint64_t sum, std::size_t words) {
  const __m128i product =
      _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(sum)),
                           _mm_cvtsi64_si128(static_cast<long long>(shiftFactors[words])), 0);
  return _mm_crc32_u64(0, static_cast<std::uint64_t>(_mm_cvtsi128_si64(product)));
}

[[gnu::target("sse4.2,pclmul")]] std::uint64_t threeStreams(const unsigned char* bytes,
                                                            std::size_t words, std::uint64_t sum) {
  std::uint64_t second = 0;
  std::uint64_t third = 0;
  for (std::size_t i = 0; i < words; ++i) {
    sum = _mm_crc32_u64(sum, wordAt(bytes, i));
    second = _mm_crc32_u64(second, wordAt(bytes, words + i));
    third = _mm_crc32_u64(third, wordAt(bytes, 2 * words + i));
  }
  return shifted(sum, 2 * words) ^ shifted(second, words) ^ third;
}

[[gnu::target("sse4.2,pclmul")]] std::uint32_t crc32cBySse(const void* data, std::size_t size,
                                                           std::uint32_t previous) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t sum = static_cast<std::uint32_t>(~previous);
  while (size >= 3 * 8 * minimumStreamWords) {
    const std::size_t third = size / (3 * 8);
    const std::size_t words = third < maximumStreamWords ? third : maximumStreamWords;
    sum = threeStreams(bytes, words, sum);
    bytes += 3 * 8 * words;
    size -= 3 * 8 * words;
  }
  for (; size >= 8; size -= 8, bytes += 8) {
    sum = _mm_crc32_u64(sum, wordAt(bytes, 0));
  }
  auto narrow = static_cast<std::uint32_t>(sum);
  for (; size > 0; --size, ++bytes) {
    narrow = _mm_crc32_u8(narrow, *bytes);
  }
  return ~narrow;
}

}  // namespace

Crc32cFunction crc32cInstruction() noexcept {
  return __builtin_cpu_supports("sse4.2") && __builtin_cpu_supports("pclmul") ? &crc32cBySse
                                                                              : nullptr;
}

}  // namespace Vasta

#else

namespace Vasta {

Crc32cFunction crc32cInstruction() noexcept { return nullptr; }

}  // namespace Vasta

#endif
