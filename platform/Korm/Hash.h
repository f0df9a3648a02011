// Hashing for the framework's keyed collections and for the shared-memory tables.
//
// The hashes agree between the processes of one machine. They may change with the next version of
// the program, so they must not be stored for longer.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace Korm {

// A well mixed 64-bit hash of `size` bytes at `data`.
[[nodiscard]] std::uint64_t hashBytes(const void* data, std::size_t size,
                                      std::uint64_t seed) noexcept;

// The finalizer of splitmix64: every input bit moves every output bit.
[[nodiscard]] constexpr std::uint64_t hashMix(std::uint64_t value) noexcept {
  value += 0x9E3779B97F4A7C15U;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31);
}

// The 32-bit hash of a key in a keyed collection: the key's own `hash(seed)` with seed 0 where it
// has one, otherwise a hash of its integer or of its characters.
template <class Key>
struct Hash {
  [[nodiscard]] std::uint32_t operator()(const Key& key) const noexcept {
    if constexpr (requires { key.hash(std::uint32_t{0}); }) {
      return key.hash(std::uint32_t{0});
    } else if constexpr (std::is_enum_v<Key> || std::is_integral_v<Key>) {
      return static_cast<std::uint32_t>(hashMix(static_cast<std::uint64_t>(key)) >> 32);
    } else {
      const std::string_view text{key};
      return static_cast<std::uint32_t>(hashBytes(text.data(), text.size(), 0) >> 32);
    }
  }
};

template <>
struct Hash<std::string> {
  [[nodiscard]] std::uint32_t operator()(std::string_view text) const noexcept {
    return static_cast<std::uint32_t>(hashBytes(text.data(), text.size(), 0) >> 32);
  }
};

// A name with its hash, for a caller that looks it up several times. Does not copy the text.
class HashedName {
 public:
  // Any text converts to it.
  template <std::convertible_to<std::string_view> Text>
  HashedName(const Text& text) noexcept  // NOLINT(google-explicit-constructor)
      : HashedName{text, Hash<std::string>{}(text)} {}
  // Requires: `hash` is Hash<std::string> of the text.
  HashedName(std::string_view text, std::uint32_t hash) noexcept : text_{text}, hash_{hash} {}

  [[nodiscard]] std::string_view text() const noexcept { return text_; }
  [[nodiscard]] std::uint32_t hash() const noexcept { return hash_; }

 private:
  std::string_view text_;
  std::uint32_t hash_;
};

static_assert(std::endian::native == std::endian::little);
// Up to seven bytes as the low bytes of a word.
[[nodiscard]] inline std::uint64_t loadPart(const void* data, std::size_t size) noexcept {
  const auto* const at = static_cast<const unsigned char*>(data);
  if (size >= 4) {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    std::memcpy(&low, at, sizeof(low));
    std::memcpy(&high, at + size - 4, sizeof(high));
    return low | std::uint64_t{high} << (8 * (size - 4));
  }
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < size; ++i) {
    word |= std::uint64_t{at[i]} << (8 * i);
  }
  return word;
}

}  // namespace Korm
