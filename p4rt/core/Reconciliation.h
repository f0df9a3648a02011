// What becomes of the stored entities when another pipeline takes the place of the present one.
//
// Thread and process rule: the activity thread.
#pragma once

#include <memory>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"
#include "sim/Service.h"

namespace P4rt {

// Appends the updates that delete everything stored: entries, groups, members.
void appendClearing(const Pipeline& pipeline, Store& store, const Sim::Service& service,
                    p4::v1::WriteRequest& request);

struct Reconciliation {
  // What the new pipeline keeps: that which, read back now and written then, makes the same rows.
  std::unique_ptr<Store> kept;
  // Deletes the rest, under the present pipeline.
  p4::v1::WriteRequest removal;
};
[[nodiscard]] Reconciliation reconcile(const Pipeline& present, Store& store,
                                       const Sim::Service& service, const Pipeline& next);

}  // namespace P4rt
