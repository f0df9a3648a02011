#include "sim/private/Transactions.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/Korm/Clock.h"
#include "platform/Korm/Exceptions.h"

namespace Sim {
namespace {

using P4Runtime::ErrorCode;
using P4Runtime::TelemetryTimestampType;
using P4Runtime::TransactionResult;

// An entry error has a message, and a hardware result of a flow has none. When an entry error ends
// the current update, the hardware may still be working on earlier updates of the row.
bool isEntryError(const TransactionResult& result) noexcept {
  return result.code != ErrorCode::success_ && !result.message.empty();
}

}  // namespace

Transactions::Transactions(ServiceObjects& objects, GivenNumbers& numbers)
    : objects_{objects},
      numbers_{numbers},
      resultNotifiee_{*this, objects.batchStatus->resultNotifiees()},
      creatorNotifiee_{*this, objects.vrfs->creators().notifiees()},
      deletorNotifiee_{*this, objects.vrfs->deletors().notifiees()} {}

void Transactions::memberIs(EntryHandle handle) {
  rows_.tryEmplace(handle).first.value.kind = Kind::member_;
}

void Transactions::groupIs(EntryHandle handle) {
  rows_.tryEmplace(handle).first.value.kind = Kind::group_;
}

void Transactions::flowIs(EntryHandle handle, std::uint8_t table, const Ostra::OstraKey& key) {
  Row& row = rows_.tryEmplace(handle).first.value;
  row.key = key;
  row.table = table;
}

P4Runtime::EntryHandle Transactions::storedFlow(std::uint8_t table,
                                                const Ostra::OstraKey& key) const {
  for (const auto& entry : rows_) {
    const Row& row = entry.value;
    if (row.kind == Kind::flow_ && row.stored && row.table == table && row.key == key) {
      return entry.key;
    }
  }
  return {};
}

StoredRow Transactions::viewOf(const Row& row) noexcept {
  return {.key = &row.key,
          .table = row.table,
          .kind = row.kind,
          .op = row.op,
          .since = row.since,
          .stored = row.stored,
          .pending = row.pending};
}

std::optional<StoredRow> Transactions::row(EntryHandle handle) const {
  const auto* const found = rows_.find(handle);
  return found == nullptr ? std::nullopt : std::optional{viewOf(found->value)};
}

void Transactions::beginBatch(std::size_t updates, bool live) {
  Korm::assertTrue(!batchActive_, "one batch at a time");
  ++batch_;
  batchActive_ = true;
  batchTime_ = Korm::currentTime();
  live_ = live;
  results_.reserve(updates);
  nextOpen_.reserve(updates);
}

Transactions::Index Transactions::append(const Result& result) {
  results_.push_back(result);
  nextOpen_.push_back(none);
  return static_cast<Index>(results_.size() - 1);
}

Transactions::Row& Transactions::rowOf(EntryHandle handle) {
  auto* const found = rows_.find(handle);
  Korm::assertTrue(found != nullptr, "a row of the batch is in the books");
  return found->value;
}

Transactions::Row& Transactions::holdRow(EntryHandle handle) {
  return holdRow(handle, rowOf(handle));
}

Transactions::Row& Transactions::holdRow(EntryHandle handle, Row& row) {
  row.batch = batch_;
  if (!row.statusEntry) {
    objects_.batchStatus->batchStatusEntryIs(handle);
    row.statusEntry = true;
  } else if (row.kind != Kind::flow_) {
    clearStatusEntry(handle);
  }
  return row;
}

void Transactions::clearStatusEntry(EntryHandle handle) {
  if (const auto entry = objects_.batchStatus->batchStatusEntry(handle)) {
    entry->errorCodeIs(ErrorCode::success_);
    entry->messageIs({});
  }
}

void Transactions::begin(const Result& result, EntryHandle deleteHandle) {
  current_ = append(result);
  results_[current_].state = live_ ? State::pending_ : State::stored_;
  Row& row = rowOf(result.handle);
  row.op = result.op;
  row.since = batchTime_;
  if (row.kind == Kind::group_) {
    objects_.telemetry->newTransactionTimestamp(result.handle, TelemetryTimestampType::stored_);
  }
  if (!live_) {
    return;
  }
  currentRow_ = &holdRow(result.handle, row);
  currentRow_->last = current_;
  if (deleteHandle != 0) {
    const auto [entry, created] = rows_.tryEmplace(deleteHandle);
    if (created) {
      entry.value.key = currentRow_->key;
      entry.value.table = currentRow_->table;
      entry.value.stored = false;
    }
    currentRow_ = &holdRow(deleteHandle, entry.value);
    currentRow_->op = result.op;
    currentRow_->since = batchTime_;
    deleteHandles_.push_back(deleteHandle);
  }
}

void Transactions::addAnnouncement(const Result& result) {
  const Index update = append(result);
  results_[update].state = State::pending_;
  Row& row = holdRow(result.handle);
  row.last = update;
  row.open = update;
}

void Transactions::replay(EntryHandle handle) {
  currentRow_ = &holdRow(handle);
  currentRow_->open = none;
  current_ = currentRow_->last;
  Result& result = results_[current_];
  result.state = State::pending_;
  result.code = ErrorCode::success_;
  result.message.clear();
}

void Transactions::end() {
  if (currentIsOpen()) {
    nextOpen_[current_] = currentRow_->open;
    currentRow_->open = current_;
  }
  const Result& result = results_[current_];
  if (result.op == Op::delete_) {
    Row& row = rowOf(result.handle);
    row.stored = false;
    if (!live_) {
      dropRow(result.handle, row);
    }
  }
  current_ = none;
  currentRow_ = nullptr;
}

void Transactions::endFailed(std::string_view text) {
  results_[current_].state = State::failed_;
  results_[current_].message = text;
  end();
}

bool Transactions::endRejected(std::string_view text) {
  Result& result = results_[current_];
  result.state = State::rejected_;
  result.message = text;
  const bool inserted = result.op == Op::insert_;
  if (inserted) {
    objects_.batchStatus->batchStatusEntryDel(result.handle);
    rows_.erase(result.handle);
  }
  if (inserted || !live_) {
    result.handle = {};
  }
  current_ = none;
  currentRow_ = nullptr;
  return inserted;
}

void Transactions::handleResult(const TransactionResult& result) {
  if (currentIsOpen() && results_[current_].handle == result.handle) {
    complete(current_, result);
    return;
  }
  auto* const found = rows_.find(result.handle);
  Row* const row = found == nullptr ? nullptr : &found->value;
  const bool held = row != nullptr && inBatch(*row);
  if (held && row->open != none) {
    completeOpen(*row, result);
  } else if (currentIsOpen() && results_[current_].op == Op::delete_ &&
             result.code == ErrorCode::success_) {
    complete(current_, result);
  } else if ((!held || row->pending) && result.handle != 0) {
    completeLate(row, result);
  }
}

void Transactions::complete(Index update, const TransactionResult& result) {
  Result& completed = results_[update];
  completed.state = State::done_;
  completed.code = result.code;
  completed.message = result.message;
  if (completed.kind != Kind::flow_) {
    // The entry then shows only what the hardware says of the other updates.
    clearStatusEntry(completed.handle);
  } else if (result.code == ErrorCode::success_) {
    objects_.telemetry->newTransactionTimestamp(completed.handle,
                                                TelemetryTimestampType::programmed_);
  }
}

void Transactions::completeOpen(Row& row, const TransactionResult& result) {
  for (Index update = row.open; update != none; update = nextOpen_[update]) {
    complete(update, result);
  }
  row.open = none;
  if (!isEntryError(result)) {
    row.pending = false;
  }
}

void Transactions::completeLate(Row* row, const TransactionResult& result) {
  reportNotifiees_.notify({result.handle, result.code, std::string{result.message}});
  if (row == nullptr) {
    return;
  }
  if (row->kind == Kind::flow_ && row->stored) {
    publishStatus(result.handle, *row, result.code);
  }
  if (row->pending && !isEntryError(result)) {
    row->pending = false;
    if (!inBatch(*row)) {
      settleRow(result.handle, *row);
    }
  }
}

std::vector<Result> Transactions::finishBatch() {
  if (live_) {
    for (Index update = 0; update < results_.size(); ++update) {
      Result& result = results_[update];
      auto* const found = rows_.find(result.handle);
      if (found == nullptr) {
        continue;
      }
      decide(result, found->value);
      if (found->value.last == update) {
        settleRow(result.handle, found->value);
      }
      if (result.state == State::rejected_) {
        result.handle = {};
      }
    }
    for (const EntryHandle deleteHandle : std::exchange(deleteHandles_, {})) {
      if (auto* const found = rows_.find(deleteHandle)) {
        settleRow(deleteHandle, found->value);
      }
    }
  }
  batchActive_ = false;
  nextOpen_.clear();
  return std::exchange(results_, {});
}

void Transactions::decide(Result& result, const Row& row) {
  if (result.state == State::pending_ && row.kind != Kind::flow_ && result.op != Op::delete_) {
    result.state = State::done_;
    if (const auto entry = objects_.batchStatus->batchStatusEntry(result.handle)) {
      result.code = entry->errorCode();
      result.message = entry->message();
    }
  }
  if (row.kind != Kind::flow_ || !row.stored) {
    return;
  }
  if (result.state == State::done_) {
    publishStatus(result.handle, row, result.code);
  } else if (result.state == State::failed_) {
    publishStatus(result.handle, row, ErrorCode::invalidArgument_);
  }
}

void Transactions::settleRow(EntryHandle handle, Row& row) {
  row.pending = row.pending || (row.kind == Kind::flow_ && row.open != none);
  row.open = none;
  row.last = none;
  if (row.pending) {
    if (!row.stored) {
      markStatusDeleted(handle, row);
    }
    return;
  }
  objects_.batchStatus->batchStatusEntryDel(handle);
  row.statusEntry = false;
  clearVrfRecords(handle);
  if (!row.stored) {
    dropRow(handle, row);
  }
}

void Transactions::dropRow(EntryHandle handle, const Row& row) {
  if (row.kind == Kind::flow_) {
    // The key may belong to another entry by now.
    Ostra::OstraStatus& status = objects_.statusTable(row.table);
    try {
      const Ostra::OstraStatusEntry* const entry = status.table().find(row.key);
      if (entry != nullptr && entry->entryHandle == handle) {
        status.tableDel(row.key);
      }
    } catch (const Vasta::Corruption& corruption) {
      objects_.faults.add(corruption.what());
    }
  }
  rows_.erase(handle);
}

void Transactions::publishStatus(EntryHandle handle, const Row& row, ErrorCode code) {
  P4Runtime::TableStatusEntryBase status;
  status.genId = nextStatusGeneration();
  status.entryHandle = handle;
  status.errorCode = code;
  try {
    objects_.statusTable(row.table).tableIs({status, row.key});
  } catch (const std::system_error& full) {
    objects_.faults.add(full.what());
  }
}

void Transactions::markStatusDeleted(EntryHandle handle, const Row& row) {
  Ostra::OstraStatus& status = objects_.statusTable(row.table);
  Ostra::OstraStatusEntry* const entry = status.tableEdit(row.key);
  if (entry != nullptr && entry->entryHandle == handle && !entry->deleted) {
    entry->genId = nextStatusGeneration();
    entry->deleted = true;
    status.tableCommit(entry);
  }
}

void Transactions::forget() {
  batchActive_ = false;
  current_ = none;
  currentRow_ = nullptr;
  results_.clear();
  nextOpen_.clear();
  deleteHandles_.clear();
  for (auto& entry : rows_) {
    Row& row = entry.value;
    row.open = none;
    row.last = none;
    row.pending = false;
    row.statusEntry = false;
    if (!row.stored) {
      dropRow(entry.key, row);
    }
  }
  objects_.batchStatus->batchStatusEntryDelAll();
  objects_.vrfs->delAll();
  vrfRecords_.clear();
}

void Transactions::handleVrfCreator(const Vrf::VrfIdMap::VrfId& vrf) {
  recordVrf(objects_.vrfs->vrfCreatorRootHandle(vrf), vrf);
}

void Transactions::handleVrfDeletor(const Vrf::VrfIdMap::VrfId& vrf) {
  recordVrf(objects_.vrfs->vrfDeletorRootHandle(vrf), vrf);
}

void Transactions::recordVrf(std::optional<EntryHandle> handle, Vrf::VrfIdMap::VrfId vrf) {
  if (handle) {
    vrfRecords_.tryEmplace(*handle).first.value.push_back(vrf);
  }
}

void Transactions::clearVrfRecords(EntryHandle handle) {
  auto* const found = vrfRecords_.find(handle);
  if (found == nullptr) {
    return;
  }
  const std::vector<Vrf::VrfIdMap::VrfId> recorded = std::move(found->value);
  P4Runtime::VrfIdCollection& vrfs = *objects_.vrfs;
  for (const Vrf::VrfIdMap::VrfId vrf : recorded) {
    if (vrfs.vrfCreatorRootHandle(vrf) == handle) {
      vrfs.vrfCreatorRootHandleDel(vrf);
    }
    if (vrfs.vrfDeletorRootHandle(vrf) == handle) {
      vrfs.vrfDeletorRootHandleDel(vrf);
    }
    if (vrfs.vrfIdRefCount(vrf).value_or(0) == 0 && !vrfs.vrfCreatorRootHandle(vrf) &&
        !vrfs.vrfDeletorRootHandle(vrf)) {
      vrfs.vrfIdRefCountDel(vrf);
    }
  }
  vrfRecords_.erase(handle);
}

void Transactions::verify() const {
  Korm::assertTrue(!batchActive_ && current_ == none && results_.empty(), "no batch is under way");
  rows_.verify();
  std::size_t open = 0;
  for (const auto& entry : rows_) {
    const Row& row = entry.value;
    Korm::assertTrue(row.open == none && row.last == none, "no update outlives its batch");
    Korm::assertTrue(row.stored || row.pending, "a row is stored or waits for its delete");
    Korm::assertTrue(row.pending == row.statusEntry, "what is pending can be reported");
    Korm::assertTrue(
        row.statusEntry == static_cast<bool>(objects_.batchStatus->batchStatusEntry(entry.key)),
        "the books know which batch status entries are open");
    open += row.statusEntry ? 1U : 0U;
  }
  Korm::assertTrue(open == objects_.batchStatus->entries(), "no batch status entry is left behind");
  for (const auto& entry : vrfRecords_) {
    const auto* const row = rows_.find(entry.key);
    Korm::assertTrue(row != nullptr && row->value.pending, "a VRF's record waits for its write");
  }
}

}  // namespace Sim
