// Bounded lists inside fixed-size records.
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
// Throws the size error "PodArray::set expected size <= ...", with the address and the first bytes
// of the buffer.
[[noreturn]] void throwPodArraySize(std::size_t limit, std::size_t count, const void* buffer,
                                    std::size_t bytes);
}  // namespace detail

// Two lists of at most `capacity` items each. The second follows directly on the first, so that the
// bytes in use are the front of the object. The rest is unused.
//
// A record read from shared memory may hold any counts, so every access checks them first.
// Throws: RangeException for a count above the capacity.
template <class T, std::uint32_t capacity>
class PodArrayPair {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  static constexpr std::uint32_t max = capacity;

  // Requires: the spans do not refer to this object's own items.
  void set(std::span<const T> first, std::span<const T> second = {}) {
    check(first.size(), first.data(), first.size_bytes());
    check(second.size(), second.data(), second.size_bytes());
    const auto middle = std::copy(first.begin(), first.end(), items_.begin());
    const auto end = std::copy(second.begin(), second.end(), middle);
    std::fill(end, items_.end(), T{});
    storedCountsIs(static_cast<std::uint32_t>(first.size()),
                   static_cast<std::uint32_t>(second.size()));
  }
  [[nodiscard]] std::span<const T> first() const {
    check(firstCount_, items_.data(), sizeof(items_));
    return {items_.data(), firstCount_};
  }
  [[nodiscard]] std::span<const T> second() const {
    const std::span<const T> before = first();
    check(secondCount_, items_.data(), sizeof(items_));
    return {items_.data() + before.size(), secondCount_};
  }
  // How many bytes of the object are in use. With damaged counts this may exceed its size.
  [[nodiscard]] std::size_t usedSize() const noexcept {
    return sizeof(PodArrayPair) - sizeof(items_) +
           (std::size_t{firstCount_} + secondCount_) * sizeof(T);
  }

  // The counts as they are stored, unchecked. Setting them is for tests of damaged records.
  [[nodiscard]] std::uint32_t storedFirstCount() const noexcept { return firstCount_; }
  [[nodiscard]] std::uint32_t storedSecondCount() const noexcept { return secondCount_; }
  void storedCountsIs(std::uint32_t first, std::uint32_t second) noexcept {
    firstCount_ = first;
    secondCount_ = second;
  }

 private:
  static void check(std::size_t count, const void* buffer, std::size_t bytes) {
    if (count > capacity) [[unlikely]] {
      detail::throwPodArraySize(capacity, count, buffer, bytes);
    }
  }

  std::uint32_t firstCount_ = 0;
  std::uint32_t secondCount_ = 0;
  std::array<T, std::size_t{2} * capacity> items_{};
};

}  // namespace Korm
