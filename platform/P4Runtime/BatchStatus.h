// Results of the writes under way.
//
// The service opens an entry for each write of a batch and closes it once it has answered the
// controller. Whoever learns a result marks it here; the service hears of each, in or outside a
// batch.
//
// Thread and process rule: the activity thread.
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

// The entry under which the results of dependent entries gather: those that a VRF's creation or
// removal waits for. Not to be used once the batch status has gone.
class RootStatusEntry final : public Korm::Entity {
 public:
  RootStatusEntry(BatchStatus& batch, EntryHandle handle) : batch_{batch}, handle_{handle} {}

  [[nodiscard]] EntryHandle handle() const noexcept { return handle_; }

  // Marks (or unmarks) an entry whose result this root waits for.
  void dependentEntryHandleIs(EntryHandle handle, bool dependent);
  [[nodiscard]] const std::vector<EntryHandle>& dependentEntryHandles() const noexcept {
    return dependents_;
  }

  // Delivers a dependent's result, which completes that entry's write. The entry is no longer
  // waited for.
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

  // The root entry of an entry that the batch holds; null for any other. Made when first asked for.
  [[nodiscard]] Korm::Ptr<RootStatusEntry> rootStatusEntry(EntryHandle handle);

 private:
  friend class BatchStatus;

  BatchStatus& batch_;
  Korm::HashMap<EntryHandle, Korm::Ptr<RootStatusEntry>> roots_;
};

// One result, as the service hears of it.
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

  // Opens the entry of a write, with no result; one that is open starts again.
  Korm::Ptr<BatchStatusEntry> batchStatusEntryIs(EntryHandle handle);
  // Closes it, with its root entry.
  void batchStatusEntryDel(EntryHandle handle);
  void batchStatusEntryDelAll();
  // The open entry, or null.
  [[nodiscard]] Korm::Ptr<BatchStatusEntry> batchStatusEntry(EntryHandle handle) const;
  [[nodiscard]] std::size_t entries() const noexcept { return entries_.size(); }

  [[nodiscard]] AggregatorStatus& aggregatorStatus() noexcept { return aggregator_; }

  // Records the result of an entry's write in its open entry, if there is one, and tells the
  // service either way.
  void markTransaction(EntryHandle handle, ErrorCode code, std::string_view message);
  void markTransactionSucceeded(EntryHandle handle) {
    markTransaction(handle, ErrorCode::success_, {});
  }

  // Told of every result.
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
