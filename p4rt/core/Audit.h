// Compares what is stored with what the switch holds.
//
// Thread and process rule: the activity thread.
#pragma once

#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Asserts that the switch holds the rows, Corvex groups and VRF users of what is stored, and no
// others, and that its own audit finds no fault.
// Requires: no batch is under way, and the library runs.
void audit(const Pipeline& pipeline, const Store& store, const Sim::Service& service);

}  // namespace P4rt
