// What the service tells of writes before and after they are made.
#include <algorithm>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraSm.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/Telemetry.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "sim/private/ServiceObjects.h"
#include "sim/private/Transactions.h"

namespace Sim {
namespace {

const OpenFlowTable::FlowStats* published(const ServiceObjects& objects, const Korm::Name& name) {
  const auto status =
      objects.hwStatusDir->entityPtr<OpenFlowTable::HwStatus>(std::string{HwAgent::statusName});
  return status ? status->flowStats(name) : nullptr;
}

// Null when there is none, and when it is damaged.
const Ostra::OstraConfigEntry* intactRow(ServiceObjects& objects, std::uint8_t table,
                                         const Ostra::OstraKey& key) {
  try {
    return objects.flowTable(table).entry(key);
  } catch (const Vasta::Corruption& corruption) {
    objects.faults.add(corruption.what());
    return nullptr;
  }
}

}  // namespace

std::optional<Ostra::FlowPreview> Service::explain(std::uint8_t table,
                                                   Ostra::OstraConfigEntry entry) const {
  if (!running()) {
    return std::nullopt;
  }
  const P4Runtime::EntryHandle stored = transactions_->storedFlow(table, entry.flowKey);
  entry.entryHandle = stored != 0 ? stored : transactions_->handleOfNextInsert();
  entry.entryId = static_cast<std::uint32_t>(entry.entryHandle);
  return context_->ostraSmColl().at(table)->preview(entry);
}

std::optional<StoredFlow> Service::storedFlow(P4Runtime::EntryHandle handle) const {
  const auto known = transactions_->row(handle);
  if (!known || known->kind != Kind::flow_ || !known->stored) {
    return std::nullopt;
  }
  const auto* const row = intactRow(*objects_, known->table, *known->key);
  if (row == nullptr || row->entryHandle != handle) {
    return std::nullopt;
  }
  StoredFlow flow{.row = row, .table = known->table, .storedAt = known->since};
  flow.pending = known->pending;
  const Korm::Name name = Ostra::buildFlowName(handle);
  flow.flow = objects_->hwConfig->flowEntry(name);
  if (const auto stamp =
          objects_->telemetry->newest(handle, P4Runtime::TelemetryTimestampType::configured_)) {
    flow.configuredAt = stamp->time;
  }
  flow.hardware = published(*objects_, name);
  if (const auto stamp =
          objects_->telemetry->newest(handle, P4Runtime::TelemetryTimestampType::programmed_)) {
    flow.programmedAt = stamp->time;
  }
  if (running()) {
    flow.preview = context_->ostraSmColl().at(known->table)->preview(*row);
  }
  return flow;
}

std::optional<Ostra::AuditReport> Service::audit(const Ostra::AuditOptions& options) const {
  return running() ? std::optional{Ostra::audit(*context_, options)} : std::nullopt;
}

std::vector<PendingView> Service::pending() const {
  std::vector<PendingView> views;
  transactions_->forEachPending([&](P4Runtime::EntryHandle handle, const StoredRow& row) {
    PendingView view{.handle = handle, .op = row.op, .table = row.table, .since = row.since};
    if (row.stored) {
      view.row = intactRow(*objects_, row.table, *row.key);
    }
    view.key = row.key;
    if (const auto* const stats = published(*objects_, Ostra::buildFlowName(handle))) {
      view.status = stats->status();
    }
    views.push_back(view);
  });
  std::sort(views.begin(), views.end(),
            [](const PendingView& a, const PendingView& b) { return a.handle < b.handle; });
  return views;
}

}  // namespace Sim
