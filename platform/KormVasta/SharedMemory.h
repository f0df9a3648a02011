// Where a process keeps its tables. For the activity thread.
#pragma once

#include <string>
#include <string_view>

namespace KormVasta {

struct SharedMemoryOptions {
  std::string prefix;  // of the segments' names; empty: tables are anonymous
  // True: continue with the rows that an earlier process left, and leave them to the next one.
  // False: start empty, and remove the rows with the table.
  bool takeOver = false;
};

// Applies to the tables that are placed in the tree from now on.
void sharedMemoryIs(SharedMemoryOptions options);
[[nodiscard]] const SharedMemoryOptions& sharedMemory() noexcept;

// The segment name of the table at a path: how another process finds it.
[[nodiscard]] std::string segmentName(std::string_view prefix, std::string_view path);

// The segment name of the table at a path in this process; empty when tables are anonymous. Removes
// what an earlier process left there, unless it is to be taken over.
[[nodiscard]] std::string prepareSegment(std::string_view path);

}  // namespace KormVasta
