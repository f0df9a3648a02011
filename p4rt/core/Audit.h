// Compares the store with the switch.
//
// Threads: the activity thread.
#pragma once

#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Asserts that the rows, Corvex groups and VRF counts in the switch are exactly those of the stored
// entities, and that the switch's own audit finds no fault.
// Requires: no batch is in progress, and the library is running.
void audit(const Pipeline& pipeline, const Store& store, const Sim::Service& service);

}  // namespace P4rt
