// Goes on with what an engine that is gone has kept.
//
// Thread and process rule: the activity thread.
#pragma once

#include <string>
#include <vector>

#include "p4rt/core/Keeper.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Fills the store, which is empty, with what is kept, and makes the rows of the switch what the
// store stands for: those that differ are written, those that are missing inserted, and all others
// deleted. What does not fit any more is dropped; returns a text for each. Throws ResumeError when
// a row cannot be written.
// Requires: the library does not run.
std::vector<std::string> restore(const Pipeline& pipeline, Keeper& keeper, Store& store,
                                 Sim::Service& service);

// Whether the switch stores no flow, member or group.
[[nodiscard]] bool storesNothing(const Sim::Service& service);

}  // namespace P4rt
