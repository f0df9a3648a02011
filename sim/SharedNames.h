// The names of segments under the name that --shm gives. TablePaths.h has the segments of the
// tables.
#pragma once

#include <string>
#include <string_view>

namespace Sim {

// Why the name cannot be used; empty when it can.
[[nodiscard]] std::string sharedNameFault(std::string_view name);

// The segment of the trace ring.
[[nodiscard]] std::string traceSegment(std::string_view name);

}  // namespace Sim
