// Results of the writes in progress. For the activity thread.
//
// The service opens an entry for each write of a batch, and closes it once it has answered the
// controller. Whoever learns the result of a write marks it here. The service is notified of each
// result, whether there is an open entry for it or not.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Korm/Entity.h"
#include "platform/Korm/HashMap.h"
#include "platform/P4Runtime/Types.h"

namespace P4Runtime {

class BatchStatus;

// The result of one entry's write.
class BatchStatusEntry final : public Korm::Entity {
 public:
  explicit BatchStatusEntry(EntryHandle handle) : handle_{handle} {}

  [[nodiscard]] EntryHandle handle() const noexcept { return handle_; }
  [[nodiscard]] ErrorCode errorCode() const noexcept { return errorCode_; }
  [[nodiscard]] const std::string& message() const noexcept { return message_; }

  void messageIs(std::string_view message) { message_ = message; }
  void errorCodeIs(ErrorCode code) noexcept { errorCode_ = code; }

 private:
  const EntryHandle handle_;
  ErrorCode errorCode_ = ErrorCode::success_;
  std::string message_;
};

// Collects the results of dependent entries: the creation or removal of a VRF waits for the results
// of the entries that use it.
// Requires: not used after the batch status is destroyed.
class RootStatusEntry final : public Korm::Entity {
 public:
  RootStatusEntry(BatchStatus& batch, EntryHandle handle) : batch_{batch}, handle_{handle} {}

  [[nodiscard]] EntryHandle handle() const noexcept { return handle_; }

  // Adds or removes an entry whose result this root waits for.
  void dependentEntryHandleIs(EntryHandle handle, bool dependent);
  [[nodiscard]] const std::vector<EntryHandle>& dependentEntryHandles() const noexcept {
    return dependents_;
  }

  // Delivers the result of a dependent entry. It completes that entry's write, and the root no
  // longer waits for it.
  void dependentEntryStatusIs(const Korm::Ptr<BatchStatusEntry>& status);
  // The last result delivered, or null.
  [[nodiscard]] const Korm::Ptr<BatchStatusEntry>& dependentEntryStatus() const noexcept {
    return status_;
  }

 private:
  BatchStatus& batch_;
  const EntryHandle handle_;
  std::vector<EntryHandle> dependents_;
  Korm::Ptr<BatchStatusEntry> status_;
};

// The root entries of the batch.
class AggregatorStatus {
 public:
  explicit AggregatorStatus(BatchStatus& batch) : batch_{batch} {}

  // The root entry of an open entry, created when first used; null if the entry is not open.
  [[nodiscard]] Korm::Ptr<RootStatusEntry> rootStatusEntry(EntryHandle handle);

 private:
  friend class BatchStatus;

  BatchStatus& batch_;
  Korm::HashMap<EntryHandle, Korm::Ptr<RootStatusEntry>> roots_;
};

// One result, as the service is notified of it.
struct TransactionResult {
  EntryHandle handle;
  ErrorCode code;
  std::string_view message;
  bool dependent;  // delivered through a root entry
};

class BatchStatus final : public Korm::Entity {
 public:
  using ResultNotifiees = Korm::NotifieeList<const TransactionResult&>;

  BatchStatus() : aggregator_{*this} {}

  // Opens the entry of a write, with success and no message. Clears an entry that is open already.
  Korm::Ptr<BatchStatusEntry> batchStatusEntryIs(EntryHandle handle);
  // Closes the entry and its root entry.
  void batchStatusEntryDel(EntryHandle handle);
  void batchStatusEntryDelAll();
  // The open entry, or null.
  [[nodiscard]] Korm::Ptr<BatchStatusEntry> batchStatusEntry(EntryHandle handle) const;
  [[nodiscard]] std::size_t entries() const noexcept { return entries_.size(); }

  [[nodiscard]] AggregatorStatus& aggregatorStatus() noexcept { return aggregator_; }

  // Records the result of a write in its open entry, if there is one, and notifies the service in
  // any case.
  void markTransaction(EntryHandle handle, ErrorCode code, std::string_view message);
  void markTransactionSucceeded(EntryHandle handle) {
    markTransaction(handle, ErrorCode::success_, {});
  }

  // Notified of every result.
  [[nodiscard]] ResultNotifiees& resultNotifiees() const noexcept { return notifiees_; }

 private:
  friend class RootStatusEntry;
  friend class AggregatorStatus;

  void resultIs(EntryHandle handle, ErrorCode code, std::string_view message, bool dependent);

  Korm::HashMap<EntryHandle, Korm::Ptr<BatchStatusEntry>> entries_;
  AggregatorStatus aggregator_;
  mutable ResultNotifiees notifiees_;
};

}  // namespace P4Runtime
