// Translates the match of a flow key to a Corvex match. Private to the library.
#pragma once

#include "Ostra/OstraTypes.h"
#include "platform/OpenFlowTable/Match.h"

namespace Ostra {

// Copies every constrained field by its rule in OSTRA_MATCH_FIELDS, except the ports, which need
// the service's port mapping.
// Throws: Korm::RangeException for a VLAN id or mask out of range.
void copyMatchFields(const OstraKey& key, OpenFlowTable::Match& match);

// In tables of type 1, replaces an exact IPv4 or IPv6 ether type by the layer-3 packet type,
// because the hardware keys those tables by packet type.
void maybeUpdateFlowMatch(OpenFlowTable::TableType tableType,
                          OpenFlowTable::PriorityGroupType priorityGroupType,
                          OpenFlowTable::Match& match);

}  // namespace Ostra
