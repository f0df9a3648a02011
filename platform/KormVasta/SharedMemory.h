// Where a process keeps its tables.
//
// Thread and process rule: the activity thread.
#pragma once

#include <string>
#include <string_view>

namespace KormVasta {

struct SharedMemoryOptions {
  std::string prefix;  // of the segments' names; empty: tables are anonymous
  // Go on with the rows that an earlier process left, and leave them to the next one; or start
  // empty, and remove them with the table.
  bool takeOver = false;
};

// For the tables that get their place from now on.
void sharedMemoryIs(SharedMemoryOptions options);
[[nodiscard]] const SharedMemoryOptions& sharedMemory() noexcept;

// The segment name of the table at a path: how another process finds it.
[[nodiscard]] std::string segmentName(std::string_view prefix, std::string_view path);

// The segment for the table at a path in this process, cleared of what an earlier process left
// unless that is to be taken over; empty when tables are anonymous.
[[nodiscard]] std::string prepareSegment(std::string_view path);

}  // namespace KormVasta
