// Bringing memory that is needed soon into the cache.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Korm {

// Starts to load the cache lines of the `size` bytes at `data`, and does not wait for them. Has no
// effect but on time.
inline void prefetch(const void* data, std::size_t size) noexcept {
  constexpr std::uintptr_t cacheLine = 64;
  const auto* const start = static_cast<const std::byte*>(data);
  const auto* const end = start + size;
  for (const auto* at = start - reinterpret_cast<std::uintptr_t>(start) % cacheLine; at < end;
       at += cacheLine) {
    __builtin_prefetch(at);
    // Otherwise the compiler sees a function without effect and leaves out calls of it.
    asm volatile("");
  }
}

}  // namespace Korm
