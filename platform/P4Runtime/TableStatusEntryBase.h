// The part that the status records of all tables have in common.
#pragma once

#include <array>
#include <cstdint>

#include "platform/P4Runtime/Types.h"

namespace P4Runtime {

struct TableStatusEntryBase {
  std::uint64_t genId = 0;  // generation id, for the table's readers
  EntryHandle entryHandle;
  ErrorCode errorCode = ErrorCode::success_;
  bool deleted = false;
  std::array<std::uint8_t, 3> reserved{};  // records in shared memory have no padding

  friend bool operator==(const TableStatusEntryBase&,
                         const TableStatusEntryBase&) noexcept = default;
};

}  // namespace P4Runtime
