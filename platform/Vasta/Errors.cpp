#include "platform/Vasta/Errors.h"

#include <cstdio>
#include <system_error>

namespace Vasta {
namespace {

std::string hexadecimal(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%08llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

Corruption::Corruption(const std::string& table, std::uint32_t row, std::uint64_t stored,
                       std::uint64_t computed)
    : std::runtime_error{"table '" + table + "': row " + std::to_string(row) +
                         " is corrupt: stored checksum " + hexadecimal(stored) + ", computed " +
                         hexadecimal(computed)},
      row_{row} {}

AttachError::AttachError(AttachFailure failure, const std::string& table, const std::string& reason)
    : std::runtime_error{"table '" + table + "' cannot be attached: " + reason},
      failure_{failure} {}

void throwSystemError(int error, const std::string& table, const char* operation) {
  throw std::system_error{error, std::generic_category(), "table '" + table + "': " + operation};
}

}  // namespace Vasta
