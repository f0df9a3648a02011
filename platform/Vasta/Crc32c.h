// CRC-32C (Castagnoli), the check sum of every record.
//
// The polynomial is the one of RFC 3720, section 12.1: 0x1EDC6F41, reflected, initial value and final
// complement all ones; the sum of "123456789" is 0xE3069283.
//
// Thread and process rule: pure functions, callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vasta {

using Crc32cFunction = std::uint32_t (*)(const void* data, std::size_t size,
                                         std::uint32_t previous) noexcept;

// The sum of `size` bytes at `data`, continuing from `previous`: the sum of what came before, or 0 at
// the start. Uses the processor's instruction where there is one.
[[nodiscard]] std::uint32_t crc32c(const void* data, std::size_t size,
                                   std::uint32_t previous = 0) noexcept;

// The same sum by tables alone.
[[nodiscard]] std::uint32_t crc32cByTable(const void* data, std::size_t size,
                                          std::uint32_t previous) noexcept;

// The implementation that uses the processor's instruction; null where the processor has none.
[[nodiscard]] Crc32cFunction crc32cInstruction() noexcept;

}  // namespace Vasta
