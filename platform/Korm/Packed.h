// A value without alignment, so that a record can hold values of different widths without padding.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Korm {

// Requires: all zero bytes are the default value of T, because that is what it starts with.
template <class T>
class Packed {
  static_assert(std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>);

 public:
  [[nodiscard]] T value() const noexcept { return std::bit_cast<T>(bytes_); }
  void valueIs(const T& value) noexcept { std::memcpy(bytes_.data(), &value, sizeof(T)); }

 private:
  std::array<std::byte, sizeof(T)> bytes_{};
};

}  // namespace Korm
