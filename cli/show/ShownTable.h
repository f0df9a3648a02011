// The shared tables of a running ostra-sim as ostra-show prints them, from another process.
//
// Threads: one thread of a process that only reads. The writer may start, stop or be killed at any
// moment: whatever is missing then is skipped.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace Cli {

// The rows of one kind, which may be in several segments.
class ShownTable {
 public:
  ShownTable() = default;
  ShownTable(const ShownTable&) = delete;
  ShownTable& operator=(const ShownTable&) = delete;
  virtual ~ShownTable() = default;

  // Prints all rows as an aligned table, and then the damaged rows; false when there are any.
  virtual bool print(std::ostream& out) = 0;
  // Prints a line for each row that has changed since the last call: "+" and the row, or "-" and
  // the row that was removed. The first call prints every row.
  virtual void follow(std::ostream& out) = 0;
  // Unmaps the segments; the next follow() starts with every row again.
  virtual void detach() = 0;
};

// The kinds of rows by name: "flows", "members", "groups", "status".
inline constexpr std::string_view shownFlows = "flows";
inline constexpr std::string_view shownMembers = "members";
inline constexpr std::string_view shownGroups = "groups";
inline constexpr std::string_view shownStatus = "status";

// The rows of that kind in the memory that --shm `name` shares; null for a kind that there is not.
[[nodiscard]] std::unique_ptr<ShownTable> makeShownTable(std::string_view kind,
                                                         const std::string& name);

}  // namespace Cli
