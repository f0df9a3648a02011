// Prefetching: loads memory that is needed soon into the cache.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Korm {

// Prefetches the cache lines of the `size` bytes at `data`, without waiting for them.
inline void prefetch(const void* data, std::size_t size) noexcept {
  constexpr std::uintptr_t cacheLine = 64;
  const auto* const start = static_cast<const std::byte*>(data);
  const auto* const end = start + size;
  for (const auto* at = start - reinterpret_cast<std::uintptr_t>(start) % cacheLine; at < end;
       at += cacheLine) {
    __builtin_prefetch(at);
    // Without this the compiler sees no effect and removes calls of the function.
    asm volatile("");
  }
}

}  // namespace Korm
