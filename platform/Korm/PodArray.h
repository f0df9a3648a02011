// Bounded arrays inside fixed-size records.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "platform/Korm/Exceptions.h"

namespace Korm {

namespace detail {
// Raises the size error of PodArray::set.
[[noreturn]] void throwPodArraySize(std::size_t limit, std::size_t count, const void* buffer,
                                    std::size_t bytes);
}  // namespace detail

// At most `capacity` items with their count. A record read from shared memory may hold any count, so
// every access to the items checks it first; one above the capacity raises the range exception "PodArray::set
// expected size <= ...", with the address and the first bytes of the buffer.
template <class T, std::uint32_t capacity>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  static constexpr std::uint32_t max = capacity;

  // The items; those behind the last one become zero.
  void set(std::span<const T> items) {
    check(items.size(), items.data(), items.size_bytes());
    const auto end = std::copy(items.begin(), items.end(), items_.begin());
    std::fill(end, items_.end(), T{});
    count_ = static_cast<std::uint32_t>(items.size());
  }
  [[nodiscard]] std::span<const T> items() const {
    check(count_, items_.data(), sizeof(items_));
    return {items_.data(), count_};
  }
  // As stored: of an unchecked record it may be above the capacity.
  [[nodiscard]] std::uint32_t storedCount() const noexcept { return count_; }
  // For tests of what an unchecked record does.
  void storedCountIs(std::uint32_t count) noexcept { count_ = count; }

  friend bool operator==(const PodArray&, const PodArray&) noexcept = default;

 private:
  static void check(std::size_t count, const void* buffer, std::size_t bytes) {
    if (count > capacity) [[unlikely]] {
      detail::throwPodArraySize(capacity, count, buffer, bytes);
    }
  }

  std::uint32_t count_ = 0;
  std::array<T, capacity> items_{};
};

}  // namespace Korm
