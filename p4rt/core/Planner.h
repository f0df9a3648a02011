// Checks updates against the pipeline and the store, and turns them into changes.
//
// Threads: the activity thread.
// Ownership: the pipeline and the store outlive the planner.
#pragma once

#include <cstdint>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Change.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"

namespace P4rt {

class Planner {
 public:
  Planner(const Pipeline& pipeline, Store& store) noexcept : pipeline_{pipeline}, store_{store} {}

  // Makes the update's change in the store, and returns it. The switch is not touched.
  // Throws: Fault when the update is invalid, with the store unchanged.
  [[nodiscard]] Change plan(const p4::v1::Update& update);

 private:
  using Type = p4::v1::Update::Type;

  Change planFlow(Type type, const p4::v1::TableEntry& entry);
  Change insertFlow(const TableInfo& table, const p4::v1::TableEntry& entry);
  Change modifyFlow(const TableInfo& table, const p4::v1::TableEntry& entry);
  Change planMember(Type type, const p4::v1::ActionProfileMember& member);
  Change planGroup(Type type, const p4::v1::ActionProfileGroup& group);
  [[noreturn]] void planCounter(Type type, const p4::v1::DirectCounterEntry& counter);

  // A new entry with this action, still without handle and metadata. `former` is the entry that it
  // replaces, or null. Hidden ids are taken last, after all checks.
  FlowEntry actionOf(const TableInfo& table, const p4::v1::TableAction& action,
                     const FlowEntry* former);
  FlowEntry directAction(const TableInfo& table, const p4::v1::Action& action);
  FlowEntry oneShotOf(const TableInfo& table, const p4::v1::ActionProfileActionSet& set,
                      const FlowEntry* former);
  [[nodiscard]] PackedAction memberAction(const p4::v1::Action& action) const;
  void requireMember(Id id);
  void requireGroup(Id id);

  [[nodiscard]] GroupEntry groupOf(const p4::v1::ActionProfileGroup& group,
                                   const GroupEntry* former);

  const Pipeline& pipeline_;
  Store& store_;
};

}  // namespace P4rt
