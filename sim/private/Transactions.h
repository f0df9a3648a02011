// The service's transactions: which rows are stored, which writes wait for a result, and the
// results.
//
// A batch is begun before its first update and finished after its last one. An update is the
// current one while it is applied. After that it is open, and belongs to its row, until its result
// comes. A result completes
// - the current update, when it is for the same row; an entry error always comes in this way;
// - all open updates of its row, because the hardware sees them as one;
// - the current delete, when the result acknowledges a handle without an open update: the library
//   has found the key under an earlier handle, or under none.
// Any other result is a report. When the batch is finished, an open update of a flow is pending. An
// open update of a member or group has succeeded, unless the hardware has left an error in its
// batch status entry.
//
// The batch status entry of a row with a pending update stays open until the result comes, possibly
// many batches later. The result needs this entry and its root entry.
//
// Threads: the activity thread.
// Ownership: refers to the service's objects, which outlive it. Updates, rows and results are its
// own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Korm/HashMap.h"
#include "platform/Korm/Notification.h"
#include "platform/Vasta/Layout.h"
#include "sim/SharedMemory.h"
#include "sim/Writes.h"
#include "sim/private/ServiceObjects.h"

namespace Sim {

// What is recorded of a row.
struct StoredRow {
  const Ostra::OstraKey* key = nullptr;  // of a flow; valid until the next change
  std::uint8_t table = 0;                // of a flow
  Kind kind = Kind::flow_;
  Op op = Op::insert_;  // of its last write
  double since = 0;     // the time of that write in seconds since the epoch; 0 when unknown
  bool stored = true;
  bool pending = false;
};

class Transactions {
 public:
  using EntryHandle = P4Runtime::EntryHandle;

  // Requires: `numbers` outlive this object. A handle is assigned before its row is written.
  Transactions(ServiceObjects& objects, GivenNumbers& numbers);
  Transactions(const Transactions&) = delete;
  Transactions& operator=(const Transactions&) = delete;

  // Stored rows.

  // The handle that the next insert will get.
  [[nodiscard]] EntryHandle handleOfNextInsert() const noexcept {
    return EntryHandle{numbers_.handle + 1};
  }
  [[nodiscard]] EntryHandle nextHandle() noexcept {
    Vasta::storeWord(numbers_.handle, numbers_.handle + 1);
    return EntryHandle{numbers_.handle};
  }
  // Records that a row has that handle already.
  void handleTaken(EntryHandle handle) noexcept {
    Vasta::storeWord(numbers_.handle, std::max<std::uint64_t>(numbers_.handle, handle));
  }
  void memberIs(EntryHandle handle);
  void groupIs(EntryHandle handle);
  void flowIs(EntryHandle handle, std::uint8_t table, const Ostra::OstraKey& key);
  // The handle of the stored flow of that key, 0 when there is none. Looks at all of them.
  [[nodiscard]] EntryHandle storedFlow(std::uint8_t table, const Ostra::OstraKey& key) const;

  // Nothing for an unknown handle.
  [[nodiscard]] std::optional<StoredRow> row(EntryHandle handle) const;
  void prefetch(EntryHandle handle) const noexcept { rows_.prefetch(rows_.hash(handle)); }
  // Calls visit(handle, row) for each row with a write that waits for the hardware.
  template <class Visit>
  void forEachPending(Visit visit) const {
    for (const auto& entry : rows_) {
      if (entry.value.pending) {
        visit(entry.key, viewOf(entry.value));
      }
    }
  }

  // A batch.

  // `live` says that the library is running, so that results will come.
  void beginBatch(std::size_t updates, bool live);
  // Adds an update that was rejected before it reached a table.
  void reject(const Result& result) { append(result); }
  // Begins an update of a stored row: it is now the current one. `deleteHandle` is the handle under
  // which the library will act on a delete, if it differs from the row's.
  void begin(const Result& result, EntryHandle deleteHandle = {});
  // Adds the announcement of a row. It does not become the current update, but results that the
  // library's creation brings are its results.
  void addAnnouncement(const Result& result);
  // Makes the announcement of a row the current update, and drops its result so far.
  void replay(EntryHandle handle);
  // Ends the current update after it was applied. It is open unless it has a result. A row that was
  // deleted is no longer stored.
  void end();
  // Ends it with the text of the exception that left the library.
  void endFailed(std::string_view text);
  // Ends it as rejected, because the change could not be made. Returns whether its row is removed,
  // which is so for an insert.
  bool endRejected(std::string_view text);
  // Decides the open updates, releases what is no longer needed, and returns the results in the
  // order of the updates.
  [[nodiscard]] std::vector<Result> finishBatch();

  // Forgets every write in progress, including the batch, and empties the batch status and the VRF
  // counts. Stored rows stay.
  void forget();

  // Notified of every report.
  [[nodiscard]] Korm::NotifieeList<const Report&>& reportNotifiees() noexcept {
    return reportNotifiees_;
  }

  // Asserts every invariant.
  // Requires: there is no batch.
  void verify() const;

 private:
  using Index = std::uint32_t;  // of an update in the batch
  static constexpr Index none = 0xFFFFFFFFU;

  struct Row {
    Ostra::OstraKey key;      // of a flow
    std::uint64_t batch = 0;  // the last batch with the row
    Index open = none;        // its newest open update in that batch; nextOpen_ has the others
    Index last = none;        // its newest update in that batch
    Kind kind = Kind::flow_;
    std::uint8_t table = 0;  // of a flow
    double since = 0;        // of the last update
    Op op = Op::insert_;
    bool stored = true;
    bool pending = false;      // an earlier batch has left an update open
    bool statusEntry = false;  // its batch status entry is open
  };

  [[nodiscard]] static StoredRow viewOf(const Row& row) noexcept;
  Index append(const Result& result);
  Row& rowOf(EntryHandle handle);
  // Makes the row part of the batch. Its batch status entry is then open, without errors of earlier
  // updates.
  Row& holdRow(EntryHandle handle);
  Row& holdRow(EntryHandle handle, Row& row);
  void clearStatusEntry(EntryHandle handle);

  void handleResult(const P4Runtime::TransactionResult& result);
  [[nodiscard]] bool currentIsOpen() const noexcept {
    return current_ != none && results_[current_].state == State::pending_;
  }
  [[nodiscard]] bool inBatch(const Row& row) const noexcept {
    return batchActive_ && row.batch == batch_;
  }
  void complete(Index update, const P4Runtime::TransactionResult& result);
  void completeOpen(Row& row, const P4Runtime::TransactionResult& result);
  void completeLate(Row* row, const P4Runtime::TransactionResult& result);

  void decide(Result& result, const Row& row);
  // Releases what the row no longer needs, after the batch or after its last pending result.
  void settleRow(EntryHandle handle, Row& row);
  void dropRow(EntryHandle handle, const Row& row);
  [[nodiscard]] std::uint64_t nextStatusGeneration() noexcept {
    Vasta::storeWord(numbers_.statusGeneration, numbers_.statusGeneration + 1);
    return numbers_.statusGeneration;
  }
  void publishStatus(EntryHandle handle, const Row& row, P4Runtime::ErrorCode code);
  void markStatusDeleted(EntryHandle handle, const Row& row);

  void handleVrfCreator(const Vrf::VrfIdMap::VrfId& vrf);
  void handleVrfDeletor(const Vrf::VrfIdMap::VrfId& vrf);
  void recordVrf(std::optional<EntryHandle> handle, Vrf::VrfIdMap::VrfId vrf);
  void clearVrfRecords(EntryHandle handle);

  // Constant after construction.
  ServiceObjects& objects_;

  // The activity thread.
  GivenNumbers& numbers_;
  Korm::HashMap<EntryHandle, Row> rows_;
  std::uint64_t batch_ = 0;
  double batchTime_ = 0;  // when it began
  bool batchActive_ = false;
  bool live_ = false;
  Index current_ = none;
  // The row to which the current update will belong when it is open.
  Row* currentRow_ = nullptr;
  std::vector<Result> results_;  // one per update of the batch; pending_ while it is open
  std::vector<Index> nextOpen_;  // per update, the open one of the same row before it
  std::vector<EntryHandle> deleteHandles_;
  Korm::NotifieeList<const Report&> reportNotifiees_;
  // For each handle, a superset of the VRFs that have it recorded as their creator or deletor.
  Korm::HashMap<EntryHandle, std::vector<Vrf::VrfIdMap::VrfId>> vrfRecords_;

  Korm::MemberNotifiee<Transactions, &Transactions::handleResult,
                       const P4Runtime::TransactionResult&>
      resultNotifiee_;
  Korm::MemberNotifiee<Transactions, &Transactions::handleVrfCreator, const Vrf::VrfIdMap::VrfId&>
      creatorNotifiee_;
  Korm::MemberNotifiee<Transactions, &Transactions::handleVrfDeletor, const Vrf::VrfIdMap::VrfId&>
      deletorNotifiee_;
};

}  // namespace Sim
