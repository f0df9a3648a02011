#include "p4rt/core/Change.h"

#include <utility>

namespace P4rt {
namespace {

using Sim::Op;
using Sim::Update;

const FlowChange* flowOf(const Change& change) { return std::get_if<FlowChange>(&change.what); }

// The one shots that a change adds and removes, null for none. A change that keeps the one shot
// does neither.
struct OneShots {
  const OneShot* fresh = nullptr;
  const OneShot* stale = nullptr;
};

OneShots oneShotsOf(const Change& change, Store& store) {
  const FlowChange* const flow = flowOf(change);
  if (flow == nullptr || flow->keepsOneShot) {
    return {};
  }
  const FlowEntry* const present =
      change.op == Op::delete_ ? nullptr : store.flow(*flow->table, flow->key);
  return {present == nullptr ? nullptr : present->oneShot.get(),
          flow->former ? flow->former->oneShot.get() : nullptr};
}

void appendMembers(const OneShot& shot, Op op, Writes& writes) {
  for (const OneShot::Action& action : shot.actions) {
    writes.push_back(Update::member(
        op, rowOf(action.member, MemberEntry{.handle = {}, .action = action.action})));
  }
}

void appendGroup(const OneShot& shot, Op op, Writes& writes) {
  GroupEntry group;
  for (const OneShot::Action& action : shot.actions) {
    group.members.push_back({action.member, action.weight});
  }
  writes.push_back(Update::group(op, rowOf(shot.group, group)));
}

void appendHidden(const OneShots& shots, Stage stage, bool undo, Writes& writes) {
  const bool fresh = stage == Stage::newMembers_ || stage == Stage::newGroup_;
  const OneShot* const shot = fresh ? shots.fresh : shots.stale;
  if (shot == nullptr) {
    return;
  }
  const Op op = fresh != undo ? Op::insert_ : Op::delete_;
  if (stage == Stage::newMembers_ || stage == Stage::oldMembers_) {
    appendMembers(*shot, op, writes);
  } else {
    appendGroup(*shot, op, writes);
  }
}

void releaseHidden(const OneShot* shot, Store& store) {
  if (shot == nullptr) {
    return;
  }
  store.releaseHidden(shot->group);
  for (const OneShot::Action& action : shot->actions) {
    store.releaseHidden(action.member);
  }
}

// Overloads for the three kinds of change, which are otherwise handled alike.

Update write(Op op, const FlowChange& change, const FlowEntry& entry) {
  return Update::flow(op, change.table->index, rowOf(change.key, entry));
}
Update write(Op op, const MemberChange& change, const MemberEntry& entry) {
  return Update::member(op, rowOf(change.id, entry));
}
Update write(Op op, const GroupChange& change, const GroupEntry& entry) {
  return Update::group(op, rowOf(change.id, entry));
}

FlowEntry* present(const FlowChange& change, Store& store) {
  return store.flow(*change.table, change.key);
}
MemberEntry* present(const MemberChange& change, Store& store) { return store.member(change.id); }
GroupEntry* present(const GroupChange& change, Store& store) { return store.group(change.id); }

FlowEntry take(const FlowChange& change, Store& store) {
  return store.takeFlow(*change.table, change.key);
}
MemberEntry take(const MemberChange& change, Store& store) { return store.takeMember(change.id); }
GroupEntry take(const GroupChange& change, Store& store) { return store.takeGroup(change.id); }

void put(const FlowChange& change, FlowEntry&& entry, Store& store) {
  store.put(*change.table, change.key, std::move(entry));
}
void put(const MemberChange& change, MemberEntry&& entry, Store& store) {
  store.put(change.id, std::move(entry));
}
void put(const GroupChange& change, GroupEntry&& entry, Store& store) {
  store.put(change.id, std::move(entry));
}

// A refused flow is still counted in its VRF, and deleting its row does not change that. Writing a
// row without the VRF does. It is deleted in the same batch, before the hardware sees it.
void appendVrfRelease(const FlowChange& change, const FlowEntry& entry, Writes& writes) {
  if (rowOf(change.key, entry).vrfGiven) {
    writes.push_back(write(Op::modify_, change, FlowEntry{}));
  }
}
template <class OtherChange, class Entry>
void appendVrfRelease(const OtherChange& /*change*/, const Entry& /*entry*/, Writes& /*writes*/) {}

// Whether the group had no members before the change. A group that loses all its members goes on
// forwarding by them, so that modifying it back would not undo the change.
bool wasEmptyGroup(const GroupChange& change) { return change.former->members.empty(); }
template <class OtherChange>
bool wasEmptyGroup(const OtherChange& /*change*/) {
  return false;
}

}  // namespace

Ostra::OstraConfigEntry rowOf(const Ostra::OstraKey& key, const FlowEntry& entry) {
  Ostra::OstraConfigEntry row;
  row.flowKey = key;
  switch (entry.kind) {
    case FlowEntry::Kind::direct_:
      if (entry.action.action != nullptr) {
        applyAction(entry.action, row);
      }
      break;
    case FlowEntry::Kind::member_:
      row.memberId = entry.member;
      row.memberGiven = true;
      break;
    case FlowEntry::Kind::group_:
    case FlowEntry::Kind::oneShot_:
      row.groupId = entry.oneShot ? entry.oneShot->group : entry.group;
      row.groupGiven = true;
      break;
  }
  return row;
}

P4RuntimeRouting::NexthopInfo rowOf(Id id, const MemberEntry& entry) {
  P4RuntimeRouting::NexthopInfo row;
  row.memberId = id;
  applyAction(entry.action, row);
  return row;
}

// The switch's buckets have no weights, so a member of weight n is listed n times.
P4RuntimeRouting::EcmpMemberList rowOf(Id id, const GroupEntry& entry) {
  std::vector<Id> ids;
  for (const GroupEntry::Member& member : entry.members) {
    ids.insert(ids.end(), static_cast<std::size_t>(member.weight), member.id);
  }
  const std::vector<std::uint32_t> weights(ids.size(), 1);
  P4RuntimeRouting::EcmpMemberList row;
  row.groupId = id;
  row.membersIs(ids, weights);
  return row;
}

bool hasHiddenRows(const Change& change, Store& store) {
  const OneShots shots = oneShotsOf(change, store);
  return shots.fresh != nullptr || shots.stale != nullptr;
}

void appendWrites(const Change& change, Stage stage, Store& store, Writes& writes) {
  if (stage != Stage::main_) {
    appendHidden(oneShotsOf(change, store), stage, false, writes);
    return;
  }
  std::visit(
      [&](const auto& what) {
        writes.push_back(write(change.op, what,
                               change.op == Op::delete_ ? *what.former : *present(what, store)));
      },
      change.what);
}

void appendUndo(const Change& change, Stage stage, bool refused, Store& store, Writes& writes) {
  if (stage != Stage::main_) {
    appendHidden(oneShotsOf(change, store), stage, true, writes);
    return;
  }
  std::visit(
      [&](const auto& what) {
        if (change.op == Op::insert_) {
          const auto& entry = *present(what, store);
          if (refused) {
            appendVrfRelease(what, entry, writes);
          }
          writes.push_back(write(Op::delete_, what, entry));
        } else if (change.op == Op::modify_ && wasEmptyGroup(what)) {
          writes.push_back(write(Op::delete_, what, *what.former));
          writes.push_back(write(Op::insert_, what, *what.former));
        } else {
          const Op back = change.op == Op::modify_ ? Op::modify_ : Op::insert_;
          writes.push_back(write(back, what, *what.former));
        }
      },
      change.what);
}

void appendRemoval(const Change& change, Store& store, Writes& writes) {
  std::visit(
      [&](const auto& what) {
        appendVrfRelease(what, *what.former, writes);
        writes.push_back(write(Op::delete_, what, *what.former));
      },
      change.what);
  if (const OneShot* const stale = oneShotsOf(change, store).stale) {
    appendGroup(*stale, Op::delete_, writes);
    appendMembers(*stale, Op::delete_, writes);
  }
}

bool isStored(const Change& change, Store& store) {
  return std::visit([&](const auto& what) { return present(what, store) != nullptr; }, change.what);
}

bool markRun(const Change& change, std::uint32_t run, Store& store) {
  return std::visit(
      [&](const auto& what) {
        if (what.former && what.former->run == run) {
          return false;
        }
        if (auto* const entry = present(what, store)) {
          entry->run = run;
        }
        return true;
      },
      change.what);
}

void handleIs(const Change& change, P4Runtime::EntryHandle handle, Store& store) {
  std::visit(
      [&](const auto& what) {
        if (auto* const entry = present(what, store)) {
          entry->handle = handle;
        }
      },
      change.what);
}

void releaseOldHidden(const Change& change, Store& store) {
  releaseHidden(oneShotsOf(change, store).stale, store);
}

void revert(Change& change, P4Runtime::EntryHandle handle, Store& store) {
  releaseHidden(oneShotsOf(change, store).fresh, store);
  drop(change, store);
  std::visit(
      [&](auto& what) {
        if (what.former) {
          if (handle != 0) {
            what.former->handle = handle;
          }
          put(what, std::move(*what.former), store);
        }
      },
      change.what);
}

void drop(const Change& change, Store& store) {
  std::visit(
      [&](const auto& what) {
        if (present(what, store) != nullptr) {
          static_cast<void>(take(what, store));
        }
      },
      change.what);
}

}  // namespace P4rt
