// Asking memory for what will be needed soon.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Korm {

inline constexpr std::size_t cacheLine = 64;

// Asks for the cache lines of the `size` bytes at `data`; for nothing if that is null. Changes nothing.
inline void prefetch(const void* data, std::size_t size = 1) noexcept {
  if (data == nullptr) {
    return;
  }
  const auto* const start = static_cast<const std::byte*>(data);
  const auto* const end = start + size;
  for (const auto* at = start - reinterpret_cast<std::uintptr_t>(start) % cacheLine; at < end;
       at += cacheLine) {
    __builtin_prefetch(at);
    // Or else the compiler sees a function without effect and leaves out its calls.
    asm volatile("");
  }
}

}  // namespace Korm
