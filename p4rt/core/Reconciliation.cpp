#include "p4rt/core/Reconciliation.h"

#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "p4rt/core/Change.h"
#include "p4rt/core/Fault.h"
#include "p4rt/core/Planner.h"
#include "p4rt/core/Reader.h"

namespace P4rt {
namespace {

using Entities = google::protobuf::RepeatedPtrField<p4::v1::Entity>;

template <class Fill>
Entities readAll(const Pipeline& pipeline, Store& store, const Sim::Service& service, Fill fill) {
  Entities all;
  Reader reader{pipeline, store, service, std::numeric_limits<int>::max(),
                [&all](p4::v1::ReadResponse&& response) { all.Swap(response.mutable_entities()); }};
  p4::v1::Entity filter;
  fill(filter);
  reader.read(filter);
  reader.flush();
  return all;
}

// Everything stored, as messages.
struct Stored {
  Stored(const Pipeline& pipeline, Store& store, const Sim::Service& service)
      : flows{readAll(pipeline, store, service,
                      [](p4::v1::Entity& filter) { filter.mutable_table_entry(); })},
        groups{readAll(pipeline, store, service,
                       [](p4::v1::Entity& filter) { filter.mutable_action_profile_group(); })},
        members{readAll(pipeline, store, service,
                        [](p4::v1::Entity& filter) { filter.mutable_action_profile_member(); })} {}

  Entities flows;
  Entities groups;
  Entities members;
};

void appendDeletes(Entities& entities, p4::v1::WriteRequest& request) {
  for (p4::v1::Entity& entity : entities) {
    p4::v1::Update& update = *request.add_updates();
    update.set_type(p4::v1::Update::DELETE);
    update.mutable_entity()->Swap(&entity);
  }
}

// Rows have no padding, so their bytes can be compared.
template <class Row>
bool sameRow(const Row& a, const Row& b) {
  return std::memcmp(&a, &b, sizeof(Row)) == 0;
}

// Gives the new one shot the hidden ids of the old one, whose rows stay in the switch. Returns
// whether these rows are right for the new one. True when neither entry has a one shot.
bool adoptHidden(const FlowEntry& before, FlowEntry& after) {
  if (!before.oneShot || !after.oneShot) {
    return !before.oneShot && !after.oneShot;
  }
  after.oneShot->group = before.oneShot->group;
  for (std::size_t at = 0; at < before.oneShot->actions.size(); ++at) {
    const OneShot::Action& was = before.oneShot->actions[at];
    OneShot::Action& is = after.oneShot->actions[at];
    is.member = was.member;
    if (!sameRow(rowOf(was.member, MemberEntry{.handle = {}, .action = was.action}),
                 rowOf(is.member, MemberEntry{.handle = {}, .action = is.action}))) {
      return false;
    }
  }
  return true;
}

class Reconciler {
 public:
  Reconciler(const Pipeline& present, Store& store, const Pipeline& next, Store& retained)
      : present_{present}, store_{store}, retained_{retained}, planner_{next, retained} {}

  // Whether the entity is retained. If so, it is put into the new store.
  bool retain(const p4::v1::Entity& entity) {
    p4::v1::Update update;
    update.set_type(p4::v1::Update::INSERT);
    *update.mutable_entity() = entity;
    try {
      Change change = planner_.plan(update);
      const bool same = isSame(entity, change);
      if (!same) {
        drop(change, retained_);
      }
      return same;
    } catch (const Fault&) {
      return false;
    }
  }

 private:
  // Whether the new entity stands for the same rows as the old one. Gives it their handles, hidden
  // ids and number in the Keeper.
  bool isSame(const p4::v1::Entity& entity, const Change& change) {
    if (const auto* const flow = std::get_if<FlowChange>(&change.what)) {
      return isSameFlow(*present_.table(entity.table_entry().table_id()), *flow);
    }
    if (const auto* const member = std::get_if<MemberChange>(&change.what)) {
      return isSameById(member->id, *store_.member(member->id), *retained_.member(member->id));
    }
    const Id group = std::get<GroupChange>(change.what).id;
    return isSameById(group, *store_.group(group), *retained_.group(group));
  }
  bool isSameFlow(const TableInfo& before, const FlowChange& what) {
    const FlowEntry* const was =
        before.index == what.table->index ? store_.flow(before, what.key) : nullptr;
    FlowEntry& is = *retained_.flow(*what.table, what.key);
    if (was == nullptr || !adoptHidden(*was, is) ||
        !sameRow(rowOf(what.key, *was), rowOf(what.key, is))) {
      return false;
    }
    is.handle = was->handle;
    is.kept = was->kept;
    return true;
  }
  template <class Entry>
  static bool isSameById(Id id, const Entry& was, Entry& is) {
    is.handle = was.handle;
    return sameRow(rowOf(id, was), rowOf(id, is));
  }

  const Pipeline& present_;
  Store& store_;
  Store& retained_;
  Planner planner_;
};

}  // namespace

void appendClearing(const Pipeline& pipeline, Store& store, const Sim::Service& service,
                    p4::v1::WriteRequest& request) {
  Stored stored{pipeline, store, service};
  appendDeletes(stored.flows, request);
  appendDeletes(stored.groups, request);
  appendDeletes(stored.members, request);
}

Reconciliation reconcile(const Pipeline& present, Store& store, const Sim::Service& service,
                         const Pipeline& next) {
  Reconciliation result{.retained = std::make_unique<Store>(), .removal = {}};
  Stored stored{present, store, service};
  Reconciler reconciler{present, store, next, *result.retained};
  // Leaves the entities that are not retained.
  const auto prune = [&reconciler](Entities& entities) {
    Entities others;
    for (p4::v1::Entity& entity : entities) {
      if (!reconciler.retain(entity)) {
        others.Add()->Swap(&entity);
      }
    }
    entities.Swap(&others);
  };
  // Groups use members, and entries use both.
  prune(stored.members);
  prune(stored.groups);
  prune(stored.flows);
  appendDeletes(stored.flows, result.removal);
  appendDeletes(stored.groups, result.removal);
  appendDeletes(stored.members, result.removal);
  return result;
}

}  // namespace P4rt
