// The errors of a shared table: it cannot be attached, or one of its records is damaged. When
// memory runs out, a std::system_error names the table. Misuse by the program is an assertion.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Vasta {

// The checksum of a record does not match its bytes. what() names the table, the row and both sums.
class Corruption : public std::runtime_error {
 public:
  Corruption(const std::string& table, std::uint32_t row, std::uint64_t stored,
             std::uint64_t computed);

  // The damaged row. It stays in place until it is overwritten or removed.
  [[nodiscard]] std::uint32_t row() const noexcept { return row_; }

 private:
  std::uint32_t row_;
};

enum class AttachFailure {
  missing,     // no table of that name, or it was removed
  notReady,    // its writer has not finished creating it
  foreign,     // the segment is not a table
  version,     // another version of the shared format
  layout,      // another record type, or another build of it
  truncated,   // its segments are shorter than its header says
  damaged,     // a word of its header is damaged
  writerBusy,  // another writer, in this process or another, has the table
};

// A table cannot be attached. what() names it and says why.
class AttachError : public std::runtime_error {
 public:
  AttachError(AttachFailure failure, const std::string& table, const std::string& reason);
  [[nodiscard]] AttachFailure failure() const noexcept { return failure_; }

 private:
  AttachFailure failure_;
};

// The table's name in messages: "table 'routes'".
[[nodiscard]] std::string tableSubject(const std::string& table);

// Throws the std::system_error with `error` (an errno value) for an operation on `table`.
[[noreturn]] void throwSystemError(int error, const std::string& table, const char* operation);

}  // namespace Vasta
