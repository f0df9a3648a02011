// Checks the shared memory of a switch from another process.
//
// Threads: free functions of a process that only reads.
#pragma once

#include <iosfwd>
#include <string>

namespace Cli {

// Reads every row of every table under the name, looks each up by its key, and compares the counts
// of rows. Prints a line for each table and for each fault; false when there was a fault or when
// there is no table.
bool checkShared(const std::string& name, std::ostream& out);

}  // namespace Cli
