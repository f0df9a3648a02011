// Values of any length that a front end keeps in the service's shared memory, by kind and id: what
// it adds to the entries, and what it needs to resume after a crash.
//
// A value is replaced atomically: a process that dies leaves the old value or the new one. Values
// and table rows are written in program order. So a front end that writes a row and then its value
// knows, after a crash, that a row without a value was never answered.
//
// Threads: the activity thread.
// Ownership: refers to the service's table, which outlives it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/SharedRecords.h"

namespace Sim {

class Blobs {
 public:
  using Kind = std::uint32_t;
  using Id = std::uint64_t;

  explicit Blobs(BlobTable& table) noexcept : table_{table} {}

  // Writes or replaces.
  // Throws: std::system_error when shared memory runs out, with the old value in place.
  void is(Kind kind, Id id, std::string_view value);
  // Removes the value; false when there is none.
  bool del(Kind kind, Id id);
  // Nothing when the value is missing or damaged.
  [[nodiscard]] std::optional<std::string> find(Kind kind, Id id) const;
  // The ids of a kind, in order.
  [[nodiscard]] std::vector<Id> ids(Kind kind) const;

  // Removes the incomplete value of a process that died while it wrote, and all damaged values.
  // Returns a text for each damaged value.
  std::vector<std::string> recover();

 private:
  [[nodiscard]] const BlobRow* part(Kind kind, Id id, std::uint64_t version,
                                    std::uint32_t part) const;
  void delParts(Kind kind, Id id, std::uint64_t version, std::size_t total);

  BlobTable& table_;
};

}  // namespace Sim
