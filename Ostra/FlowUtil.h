// The names that tie a Corvex flow to its P4Runtime entry.
//
// Thread and process rule: free functions without state.
#pragma once

#include <cstdint>

#include "platform/Korm/Entity.h"

namespace Ostra {

// "flow-" and the identifier, an entry handle, in decimal.
[[nodiscard]] Korm::String buildFlowName(std::uint64_t identifier);

// The identifier in a flow name, read as sscanf reads "flow-%lu": white space and a sign may stand before
// the number, whatever stands behind it is ignored, a negative one wraps around, and one too large
// for 64 bits is the largest. A name that does not parse is traced and gives 0, as "flow-0" does.
[[nodiscard]] std::uint64_t flowIdFromName(const Korm::String& name);

}  // namespace Ostra
