// What stands under the name that --shm gives, for the process that has it and for those that read
// it. The tables' segments are those of TablePaths.h.
//
// Thread and process rule: free functions without state.
#pragma once

#include <string>
#include <string_view>

namespace Sim {

// Why the name cannot be used; empty when it can.
[[nodiscard]] std::string sharedNameFault(std::string_view name);

// The segment of the trace ring.
[[nodiscard]] std::string traceSegment(std::string_view name);

}  // namespace Sim
