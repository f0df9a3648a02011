// The library's trace handle, by which a host sets how much text it wants.
//
// Threads: any, as Brisklog::TraceHandle.
#pragma once

#include "platform/Brisklog/TracePoint.h"

namespace Ostra {

extern Brisklog::TraceHandle traceHandle;

// The levels at which the library traces.
namespace TraceLevel {
inline constexpr int failure = 0;
inline constexpr int anomaly = 4;
inline constexpr int routine = 5;
inline constexpr int groupStatus = 7;
}  // namespace TraceLevel

}  // namespace Ostra
