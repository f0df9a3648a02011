// From the match of a flow key to the Corvex match. Private to the library.
#pragma once

#include "Ostra/OstraTypes.h"
#include "platform/OpenFlowTable/Match.h"

namespace Ostra {

// Copies every constrained field but the ports, which need the service's port mapping, by its rule
// in OSTRA_MATCH_FIELDS.
// Throws: Korm::RangeException for a VLAN id or mask out of range.
void copyMatchFields(const OstraKey& key, OpenFlowTable::Match& match);

// In tables of type 1, an exact IPv4 or IPv6 ether type becomes the layer-3 packet type, as the
// hardware keys those tables by packet type.
void maybeUpdateFlowMatch(OpenFlowTable::TableType tableType,
                          OpenFlowTable::PriorityGroupType priorityGroupType,
                          OpenFlowTable::Match& match);

}  // namespace Ostra
