// The service's books: which rows are stored, which writes wait for a result, and what has come of
// them.
//
// Updates are entered one by one into a batch that is begun before the first and finished after the
// last. While one is being applied it is the current one; once applied it is open, in its row,
// until a result comes. A result completes
// - the current update, when it is for its row; an entry error always comes that way;
// - all open updates of its row, which the hardware sees as one;
// - the current delete, when it is an acknowledgement for an entry of which the batch knows nothing
//   more: the library found the key under an earlier handle, or under none.
// Everything else is a report. When the batch is finished, what is open is pending if it is a flow;
// members and groups have succeeded unless the hardware has left an error in their batch status
// entry.
//
// The batch status entry of a row that has something pending stays open until a result comes,
// however many batches later, so that the result finds it, and with it its root entry.
//
// Thread and process rule: the activity thread.
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

// What the books say of a row.
struct StoredRow {
  const Ostra::OstraKey* key = nullptr;  // of a flow; good until the next change
  std::uint8_t table = 0;                // of a flow
  Kind kind = Kind::flow_;
  Op op = Op::insert_;  // of its last write
  double since = 0;     // when that was, in seconds since the epoch; 0 when it is not known
  bool stored = true;
  bool pending = false;
};

class Transactions {
 public:
  using EntryHandle = P4Runtime::EntryHandle;

  // `numbers` outlive the books. A handle counts as given out before its row is written.
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
  // A row has that handle already.
  void handleTaken(EntryHandle handle) noexcept {
    Vasta::storeWord(numbers_.handle, std::max<std::uint64_t>(numbers_.handle, handle));
  }
  void memberIs(EntryHandle handle);
  void groupIs(EntryHandle handle);
  void flowIs(EntryHandle handle, std::uint8_t table, const Ostra::OstraKey& key);
  // The handle of the stored flow of that key, 0 when there is none. Looks at all of them.
  [[nodiscard]] EntryHandle storedFlow(std::uint8_t table, const Ostra::OstraKey& key) const;

  // Nothing for a handle that is not in the books.
  [[nodiscard]] std::optional<StoredRow> row(EntryHandle handle) const;
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

  // `live`: the library is running, and results will come.
  void begin(std::size_t updates, bool live);
  // Enters an update that reaches no table.
  void reject(const Result& result) { append(result); }
  // Enters an update of a stored row and makes it the current one. `alias` is the handle, if
  // another, under which the library will act on a delete.
  void enter(const Result& result, EntryHandle alias = {});
  // Announces a row: enters it without making it current, so that results of the library's creation
  // are its results.
  void enterAnnouncement(const Result& result);
  // Makes an announced row's update the current one, with what has come of it so far forgotten.
  void reenter(EntryHandle handle);
  // The current update, applied, is open from now on unless a result has come already. A deleted
  // row is stored no more.
  void leave();
  // The same, with the text of the range exception that left the library.
  void leaveFailed(std::string_view text);
  // The same when the change could not be made: the update is rejected. Whether its row is none any
  // more, which is so for an insert.
  bool leaveRejected(std::string_view text);
  // Decides what is open, settles the books, and returns the results in the order of entering.
  [[nodiscard]] std::vector<Result> finish();

  // Forgets every write under way, a batch too, empties the batch status and the VRF books. What is
  // stored stays.
  void forget();

  // Told of every report.
  [[nodiscard]] Korm::NotifieeList<const Report&>& reportNotifiees() noexcept {
    return reportNotifiees_;
  }

  // Asserts the invariants of the books. Not within a batch.
  void verify() const;

 private:
  using Index = std::uint32_t;  // of an update in the batch
  static constexpr Index none = 0xFFFFFFFFU;

  struct Row {
    Ostra::OstraKey key;      // of a flow
    std::uint64_t batch = 0;  // the last one that held the row
    Index open = none;        // its newest open update of that batch; others follow in nextOpen_
    Index last = none;        // its newest update of that batch
    Kind kind = Kind::flow_;
    std::uint8_t table = 0;  // of a flow
    double since = 0;        // of the last update
    Op op = Op::insert_;
    bool stored = true;
    bool pending = false;      // an earlier batch left something open
    bool statusEntry = false;  // its batch status entry is open
  };

  [[nodiscard]] static StoredRow viewOf(const Row& row) noexcept;
  Index append(const Result& result);
  Row& rowOf(EntryHandle handle);
  // Holds the row in the batch, with its batch status entry open and free of errors of earlier
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
  // Once the batch, or the last pending result, is through: lets go of what the row needs no more.
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
  Row* currentRow_ =
      nullptr;  // where the current update will be open; stays in place while it lives
  std::vector<Result> results_;  // one per update of the batch; pending_ while it is open
  std::vector<Index> nextOpen_;  // per update, the open one of the same row before it
  std::vector<EntryHandle> aliases_;
  Korm::NotifieeList<const Report&> reportNotifiees_;
  // The VRFs whose creator or deletor a handle has been recorded as. Complete, perhaps more.
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
