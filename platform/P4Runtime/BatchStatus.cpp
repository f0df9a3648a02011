#include "platform/P4Runtime/BatchStatus.h"

#include <algorithm>

namespace P4Runtime {

void RootStatusEntry::dependentEntryHandleIs(EntryHandle handle, bool dependent) {
  const auto found = std::find(dependents_.begin(), dependents_.end(), handle);
  if (dependent && found == dependents_.end()) {
    dependents_.push_back(handle);
  } else if (!dependent && found != dependents_.end()) {
    dependents_.erase(found);
  }
}

void RootStatusEntry::dependentEntryStatusIs(const Korm::Ptr<BatchStatusEntry>& status) {
  status_ = status;
  dependentEntryHandleIs(status->handle(), false);
  batch_.resultIs(status->handle(), status->errorCode(), status->message(), true);
}

Korm::Ptr<RootStatusEntry> AggregatorStatus::rootStatusEntry(EntryHandle handle) {
  if (batch_.entries_.find(handle) == nullptr) {
    return nullptr;
  }
  auto& root = roots_.tryEmplace(handle).first.value;
  if (!root) {
    root = Korm::makePtr<RootStatusEntry>(batch_, handle);
  }
  return root;
}

Korm::Ptr<BatchStatusEntry> BatchStatus::batchStatusEntryIs(EntryHandle handle) {
  const auto [entry, created] = entries_.tryEmplace(handle);
  if (!created) {
    aggregator_.roots_.erase(handle);
  }
  entry.value = Korm::makePtr<BatchStatusEntry>(handle);
  return entry.value;
}

void BatchStatus::batchStatusEntryDel(EntryHandle handle) {
  entries_.erase(handle);
  aggregator_.roots_.erase(handle);
}

void BatchStatus::batchStatusEntryDelAll() {
  entries_.clear();
  aggregator_.roots_.clear();
}

Korm::Ptr<BatchStatusEntry> BatchStatus::batchStatusEntry(EntryHandle handle) const {
  const auto* const found = entries_.find(handle);
  return found == nullptr ? nullptr : found->value;
}

void BatchStatus::markTransaction(EntryHandle handle, ErrorCode code, std::string_view message) {
  resultIs(handle, code, message, false);
}

void BatchStatus::resultIs(EntryHandle handle, ErrorCode code, std::string_view message,
                           bool dependent) {
  if (const auto* const open = entries_.find(handle)) {
    open->value->errorCodeIs(code);
    open->value->messageIs(message);
  }
  if (!notifiees_.empty()) {
    // The message may be part of an entry that a reactor closes or writes again.
    const std::string copy{message};
    notifiees_.notify(TransactionResult{handle, code, copy, dependent});
  }
}

}  // namespace P4Runtime
