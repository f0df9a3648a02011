// What the service shows to printers.
#include <algorithm>
#include <map>

#include "Ostra/OstraSm.h"
#include "Ostra/OstraStatus.h"
#include "sim/Service.h"
#include "sim/TablePaths.h"
#include "sim/private/NameOrder.h"
#include "sim/private/Rows.h"
#include "sim/private/ServiceObjects.h"

namespace Sim {

std::vector<FlowView> Service::flows() const {
  std::vector<FlowView> views;
  views.reserve(objects_->hwConfig->flowEntries().size());
  for (const auto& flow : objects_->hwConfig->flowEntries()) {
    views.push_back({&flow.key, &flow.value});
  }
  std::sort(views.begin(), views.end(),
            [](const FlowView& a, const FlowView& b) { return numberedBefore(*a.name, *b.name); });
  return views;
}

std::vector<const OpenFlowTable::GroupEntry*> Service::groups() const {
  std::vector<const OpenFlowTable::GroupEntry*> views;
  views.reserve(objects_->hwConfig->groupEntries().size());
  for (const auto& group : objects_->hwConfig->groupEntries()) {
    views.push_back(&group.value);
  }
  std::sort(views.begin(), views.end(),
            [](const auto* a, const auto* b) { return a->id() < b->id(); });
  return views;
}

std::vector<VrfView> Service::vrfs() const {
  std::map<Vrf::VrfIdMap::VrfId, VrfView> byId;
  for (const auto& count : objects_->vrfs->refCounts()) {
    byId[count.key].refCount = count.value;
  }
  for (const auto& creator : objects_->vrfs->creators()) {
    byId[creator.key].creator = creator.value;
  }
  for (const auto& deletor : objects_->vrfs->deletors()) {
    byId[deletor.key].deletor = deletor.value;
  }
  std::vector<VrfView> views;
  views.reserve(byId.size());
  for (auto& [vrf, view] : byId) {
    view.vrf = vrf;
    views.push_back(view);
  }
  return views;
}

std::vector<DependentView> Service::dependents() const {
  std::vector<DependentView> views;
  if (!context_ || context_->ostraSmColl().empty()) {
    return views;
  }
  // All state machines share one.
  const auto& info = context_->ostraSmColl().begin()->second->inputs().ostraStatusInfo;
  for (const auto& dependent : info->dependentHandleToVrfMap()) {
    views.push_back({dependent.key, dependent.value});
  }
  std::sort(views.begin(), views.end(),
            [](const DependentView& a, const DependentView& b) { return a.handle < b.handle; });
  return views;
}

namespace {

EntryView viewOf(const Ostra::OstraConfigEntry& row, const Ostra::OstraSm* machine) {
  EntryView view{.handle = row.entryHandle, .indexed = false, .vrf = std::nullopt};
  if (machine != nullptr) {
    view.indexed = machine->flowKeyToEntryHandle(row.flowKey) == row.entryHandle;
    if (const auto vrf = machine->vrfId(row.flowKey); vrf != Vrf::VrfIdMap::none) {
      view.vrf = vrf;
    }
  }
  return view;
}

}  // namespace

std::vector<TableView> Service::entries() const {
  std::vector<TableView> views;
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    const Ostra::OstraConfig& table = objects_->flowTable(index);
    if (table.entries() == 0) {
      continue;
    }
    const Ostra::OstraSm* const machine =
        context_ ? context_->ostraSmColl().at(index).get() : nullptr;
    TableView view{.table = index, .entries = {}};
    view.entries.reserve(table.entries());
    forEachIntactRow(table, objects_->faults, [&](const Ostra::OstraConfigEntry& row) {
      view.entries.push_back(viewOf(row, machine));
    });
    std::sort(view.entries.begin(), view.entries.end(),
              [](const EntryView& a, const EntryView& b) { return a.handle < b.handle; });
    views.push_back(std::move(view));
  }
  return views;
}

ProfileView Service::storedProfile() const {
  ProfileView view;
  const auto collect = [this](const auto& table, auto idOf, auto& ids) {
    forEachIntactRow(table, objects_->faults, [&](const auto& row) { ids.push_back(idOf(row)); });
    std::sort(ids.begin(), ids.end());
  };
  collect(
      objects_->memberTable(), [](const auto& row) { return row.memberId; }, view.members);
  collect(
      objects_->groupTable(), [](const auto& row) { return row.groupId; }, view.groups);
  return view;
}

}  // namespace Sim
