// Decides what happens to the stored entities when another pipeline replaces the present one.
//
// Threads: the activity thread.
#pragma once

#include <memory>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Appends the updates that delete everything stored: first entries, then groups, then members.
void appendClearing(const Pipeline& pipeline, Store& store, const Sim::Service& service,
                    p4::v1::WriteRequest& request);

struct Reconciliation {
  // The entities that are retained, as the next pipeline describes them. An entity is retained when
  // its message, read under the present pipeline and written under the next, makes the same rows.
  std::unique_ptr<Store> retained;
  // Deletes the other entities. It is to be carried out under the present pipeline.
  p4::v1::WriteRequest removal;
};
[[nodiscard]] Reconciliation reconcile(const Pipeline& present, Store& store,
                                       const Sim::Service& service, const Pipeline& next);

}  // namespace P4rt
