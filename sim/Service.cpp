#include "sim/Service.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "Ostra/OstraCounter.h"
#include "platform/Korm/Activity.h"
#include "sim/private/RowWriter.h"
#include "sim/private/Rows.h"
#include "sim/private/ServiceObjects.h"
#include "sim/private/Transactions.h"

namespace Sim {
namespace {

// Makes a change to which the library reacts.
template <class Change>
Failure guarded(Change change) {
  try {
    change();
  } catch (const Korm::RangeException& refused) {
    return refused.what();
  } catch (const Vasta::Corruption& corruption) {
    return corruption.what();
  } catch (const std::system_error& full) {
    return full.what();
  }
  return std::nullopt;
}

}  // namespace

Service::Service(SharedMemory* shared)
    : objects_{std::make_unique<ServiceObjects>()},
      blobs_{std::make_unique<Blobs>(*objects_->blobTable)},
      transactions_{std::make_unique<Transactions>(
          *objects_, shared == nullptr ? numbers_ : shared->numbers())},
      reportNotifiee_{*this, transactions_->reportNotifiees()} {
  if (shared == nullptr) {
    return;
  }
  if (shared->resuming()) {
    restore();
  }
  shared->inServiceIs();
}

void Service::restore() {
  resumed_ = true;
  RowWriter{*objects_, *transactions_, nullptr}.restore();
  restoreRows(*objects_->portTable, objects_->faults,
              [this](const PortRow& row) { objects_->ports->portIs(row.port, row.intf); });
  restoreRows(*objects_->encapTable, objects_->faults, [](const NexthopGroup::EncapEntry&) {});
  for (const std::string& fault : blobs_->recover()) {
    objects_->faults.addDropped(fault);
  }
  settle();
}

Service::~Service() = default;

const Korm::Ptr<Tessel::EntityManager>& Service::entityManager() const noexcept {
  return objects_->entityManager;
}
const Korm::Ptr<OpenFlowTable::CorvexHwConfig>& Service::hwConfig() const noexcept {
  return objects_->hwConfig;
}
const Korm::Ptr<Korm::Dir>& Service::hwStatusDir() const noexcept { return objects_->hwStatusDir; }
const Korm::Ptr<Korm::Dir>& Service::hwUnitDir() const noexcept { return objects_->hwUnitDir; }

void Service::settle() { Korm::activity().run(); }

Announcement Service::create(bool announceRows) {
  if (running()) {
    return {.failure = "the library is running already", .results = {}};
  }
  RowWriter writer{*objects_, *transactions_, nullptr};
  transactions_->beginBatch(writer.storedRows(), true);
  writer.addAnnouncements();
  if (Failure failure = createContext()) {
    transactions_->forget();
    settle();
    return {.failure = std::move(failure), .results = {}};
  }
  if (announceRows) {
    writer.announce(std::exchange(resumed_, false));
  }
  return announcement();
}

Failure Service::createContext() {
  const ServiceObjects& has = *objects_;
  auto context =
      Ostra::ostraContextFactory(has.configTables, has.vrfs, has.ports, has.batchStatus,
                                 has.telemetry, has.handles, has.validation, has.counters);
  Tessel::MountGroup mounts;
  context->doMounts(mounts);
  const Tessel::MountStatus status = has.entityManager->complete(mounts);
  if (Failure failure = guarded([&] { context->doMountsComplete(status, has.entityManager); })) {
    return failure;
  }
  context_ = std::move(context);
  return std::nullopt;
}

Announcement Service::resync() {
  if (!running()) {
    return {.failure = "the library is stopped", .results = {}};
  }
  RowWriter writer{*objects_, *transactions_, context_.get()};
  transactions_->beginBatch(writer.storedRows(), true);
  writer.addAnnouncements();
  writer.announce();
  return announcement();
}

Announcement Service::announcement() {
  settle();
  Announcement announced{.failure = std::nullopt, .results = transactions_->finishBatch()};
  std::erase_if(announced.results, [](const Result& result) { return result.succeeded(); });
  return announced;
}

void Service::stop() {
  context_ = nullptr;
  transactions_->forget();
  settle();
}

std::vector<Result> Service::apply(std::span<const Update> batch) {
  RowWriter writer{*objects_, *transactions_, context_.get()};
  transactions_->beginBatch(batch.size(), running());
  for (std::span<const Update> left = batch; !left.empty();) {
    const auto next = left.first(std::min(left.size(), RowWriter::prefetchable));
    writer.prefetch(next);
    for (const Update& update : next) {
      writer.apply(update);
    }
    left = left.subspan(next.size());
  }
  settle();
  return transactions_->finishBatch();
}

Korm::NotifieeList<const Report&>& Service::reportNotifiees() noexcept {
  return transactions_->reportNotifiees();
}

void Service::reportsGatheredIs(bool gathered) noexcept {
  reportNotifiee_.hasNotificationActiveIs(gathered);
}

void Service::handleReport(const Report& report) {
  if (reports_.empty() || reports_.back() != report) {
    reports_.push_back(report);
  }
}

std::vector<std::string> Service::takeFaults() { return objects_->faults.take(); }

std::optional<P4Runtime::P4CounterData> Service::counter(P4Runtime::EntryHandle handle) const {
  const auto reader = objects_->counters->counterImplMap(Ostra::directCounterId);
  return reader ? std::optional{reader->getCounters(handle)} : std::nullopt;
}

Failure Service::portIs(P4Runtime::P4PortId port, const Interface::IntfId& intf) {
  return guarded([&] {
    objects_->portTable->entryIs({.port = port, .intf = intf});
    objects_->ports->portIs(port, intf);
  });
}

bool Service::portDel(P4Runtime::P4PortId port) {
  objects_->portTable->table().del(port, nullptr);
  return objects_->ports->portDel(port);
}

Failure Service::encapIs(const NexthopGroup::EncapEntry& entry) {
  Failure failure = guarded([&] { objects_->encapTable->entryIs(entry); });
  settle();
  return failure;
}

bool Service::hasEncap(NexthopGroup::EncapId id) const {
  try {
    return objects_->encapTable->entry(id) != nullptr;
  } catch (const Vasta::Corruption&) {
    return true;  // it is damaged, but it can be removed
  }
}

Failure Service::encapDel(NexthopGroup::EncapId id) {
  Failure failure = guarded([&] { objects_->encapTable->entryDel(id); });
  settle();
  return failure;
}

void Service::corvexFlowIs(const Korm::Name& name) {
  objects_->hwConfig->flowEntryIs(name, {}, {}, OpenFlowTable::Priority{}, 0,
                                  OpenFlowTable::TableType::l2_, 0, 0.0, 0.0, false, true);
  settle();
}

bool Service::corvexFlowDel(const Korm::Name& name) {
  const bool was = objects_->hwConfig->flowEntryDel(name);
  settle();
  return was;
}

bool Service::rowDamaged(P4Runtime::EntryHandle handle) {
  return RowWriter{*objects_, *transactions_, nullptr}.damage(handle);
}

void Service::verify() const {
  transactions_->verify();
  objects_->verifyTables();
  if (context_) {
    for (const auto& [index, machine] : context_->ostraSmColl()) {
      machine->verify();
    }
  }
}

}  // namespace Sim
