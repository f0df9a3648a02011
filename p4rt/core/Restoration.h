// Restores the store from what an earlier process has kept (Keeper.h).
//
// Threads: the activity thread.
#pragma once

#include <string>
#include <vector>

#include "p4rt/core/Keeper.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Fills the store with the kept entities and makes the rows of the switch match them: writes the
// row of each entity and deletes all other rows. An entity that is damaged or does not fit the
// pipeline is dropped. Returns a text for each of them.
// Throws: ResumeError when a row cannot be written.
// Requires: the store is empty, and the library is not running.
std::vector<std::string> restore(const Pipeline& pipeline, Keeper& keeper, Store& store,
                                 Sim::Service& service);

// Whether the switch stores no rows of flows, members or groups.
[[nodiscard]] bool storesNothing(const Sim::Service& service);

}  // namespace P4rt
