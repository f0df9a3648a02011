#include "platform/Vasta/Errors.h"

#include <system_error>

#include "platform/Korm/Text.h"

namespace Vasta {
Corruption::Corruption(const std::string& table, std::uint32_t row, std::uint64_t stored,
                       std::uint64_t computed)
    : std::runtime_error{tableSubject(table) + ": row " + std::to_string(row) +
                         " is corrupt: stored checksum " + Korm::hexNumber(stored) + ", computed " +
                         Korm::hexNumber(computed)},
      row_{row} {}

AttachError::AttachError(AttachFailure failure, const std::string& table, const std::string& reason)
    : std::runtime_error{tableSubject(table) + " cannot be attached: " + reason},
      failure_{failure} {}

std::string tableSubject(const std::string& table) { return "table '" + table + "'"; }

void throwSystemError(int error, const std::string& table, const char* operation) {
  throw std::system_error{error, std::generic_category(), tableSubject(table) + ": " + operation};
}

}  // namespace Vasta
