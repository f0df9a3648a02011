#include "Ostra/Trace.h"

namespace Ostra {

constinit Brisklog::TraceHandle traceHandle{"Ostra"};

}  // namespace Ostra
