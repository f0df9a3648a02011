// The writing side of a table, on records as bytes. Table<R> in Table.h is its typed face.
//
// A table is a set of records, one per key, in shared memory. A record stays in one row from its
// insertion to its removal. Rows are never given back, but reused for other records. The index can
// be rebuilt from the rows.
//
// Threads: there is one writer in the whole system. A lock that the system releases with its
// process ensures that; a child made by fork() without exec holds it too. All calls come from one
// thread. Readers never wait for the writer, even if it dies.
//
// Ownership: owns its mappings.
// Invariants: a call that throws has changed nothing, unless it says otherwise. When a call
// returns, every reader and the next writer see its change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Index.h"
#include "platform/Vasta/Layout.h"
#include "platform/Vasta/Record.h"
#include "platform/Vasta/SegmentNames.h"
#include "platform/Vasta/SegmentSource.h"

namespace Vasta {

enum class MountState { unmounted_, mounting_, mounted_, failed_ };

struct TableOptions {
  std::string name;     // the table's own name, for messages
  std::string shmName;  // by which other processes find it; empty: an anonymous table
  // Whether the destructor removes the shared memory. A writer that dies always leaves it.
  bool unlinkOnClose = false;
  MountState mountState = MountState::mounted_;
};

class TableWriter {
 public:
  // Receives what the table tells its owner, on the writer's thread, within the call that caused it
  // and after the change is committed. It may change the table. An exception leaves that call; the
  // change stays.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void recordChanged(const void* key) = 0;
    virtual void quiescedChanged(bool quiesced) = 0;
    virtual void mountStateChanged() = 0;
  };
  using CorruptionHandler = std::function<void(const std::string& message)>;

  // Creates the table, or takes it over from the previous writer: increments the writer generation,
  // checks every row, rebuilds the index, and reports the corrupt rows (corruptionCount()).
  // Throws: AttachError when another writer has the table or when it is another record's table,
  // std::system_error when memory runs out.
  TableWriter(const RecordLayout& layout, TableOptions options);
  ~TableWriter();
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  // The committed record of this key, in place, or null. It stays readable, and unchanged until the
  // next change of its row. A removal is a change, and the row may then be reused.
  // Throws: Corruption.
  [[nodiscard]] const std::byte* find(const void* key, std::uint32_t hash) const;

  // Prefetches the rows of the keys with these hashes.
  void prefetch(std::span<const std::uint32_t> hashes) const noexcept;

  // Inserts the record, or overwrites the one of its key; a corrupt one is healed by that.
  // Throws: std::system_error when memory runs out.
  void is(const std::byte* record, std::uint32_t hash);

  // Removes the record of this key; false when there is none. Copies it to `removed` unless that is
  // null.
  // Throws: Corruption when it is to be copied and is corrupt; without a copy a corrupt record is
  // removed like any other.
  bool del(const void* key, std::uint32_t hash, std::byte* removed);

  // Removes the record in this row, corrupt or not; false when there is none. The listener is told
  // the key if it is intact.
  bool discard(std::uint32_t row);

  // Removes all records, corrupt ones too. The listener is told the key of each that is intact. An
  // exception of the listener ends the removal; the later records then remain.
  void delAll();

  // A private copy of the record of this key, for the caller to change and commit; null when there
  // is no such record. Valid until the next edit(). Throws: Corruption.
  [[nodiscard]] std::byte* edit(const void* key, std::uint32_t hash);
  // Overwrites the record with the copy from edit(). False, with nothing changed, when the record
  // was removed meanwhile. Requires: the key in the copy is unchanged.
  bool commit(const std::byte* staging);

  // The next record of a walk in the order of rows, in place as for find(); null at the end. A
  // record that is there for the whole walk is met exactly once, whatever else changes.
  // Throws: Corruption for a corrupt record with the hint already past it, so that the walk can go
  // on.
  [[nodiscard]] const std::byte* next(Hint& hint) const;

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] std::uint64_t writerGeneration() const noexcept { return writerGeneration_; }
  // Of the latest change.
  [[nodiscard]] std::uint64_t changeSequence() const noexcept { return changeSequence_; }
  [[nodiscard]] const std::string& name() const noexcept { return options_.name; }
  // For readers in this process, on other threads too.
  [[nodiscard]] std::shared_ptr<SegmentSource> segments() const noexcept { return local_; }

  // Null for none. Requires: the listener outlives the table or is replaced first.
  void listenerIs(Listener* listener) noexcept { listener_ = listener; }

  // A table is quiet at first, busy from its next change on, and quiet again when the owner calls
  // quiesce(). The listener is told of each transition.
  void quiesce();
  [[nodiscard]] bool isQuiesced() const noexcept { return quiesced_; }

  // The listener is told when the state changes.
  void mountStateIs(MountState state);
  [[nodiscard]] MountState mountState() const noexcept { return mountState_; }

  // The default handler does nothing.
  void corruptionHandlerIs(CorruptionHandler handler) { corruptionHandler_ = std::move(handler); }
  // Counts and keeps the message, then calls the handler.
  void reportCorruption(const std::string& message);
  [[nodiscard]] std::uint64_t corruptionCount() const noexcept { return corruptionCount_; }
  [[nodiscard]] const std::string& lastCorruption() const noexcept { return lastCorruption_; }

  // Checks every invariant of the table and describes the first violation. Looks at everything.
  [[nodiscard]] std::optional<std::string> verify() const;

 private:
  void openNamed();
  void create(std::shared_ptr<Korm::Segment> header);
  void createNamed(const std::shared_ptr<Korm::Segment>& header);
  void formatHeader();
  void takeOver(std::shared_ptr<Korm::Segment> header);
  void takeOverRows();
  RowState takeOverRow(std::uint32_t row);
  void attachSegments(std::shared_ptr<Korm::Segment> header, std::shared_ptr<Korm::Segment> rows);
  [[nodiscard]] Index makeIndex(std::uint64_t generation) const;

  [[nodiscard]] std::uint64_t* rowWords(std::uint32_t row) const noexcept;
  [[nodiscard]] const std::uint64_t* activeCell(std::uint32_t row) const noexcept;
  [[nodiscard]] const std::byte* recordOf(std::uint32_t row) const noexcept;
  [[nodiscard]] const std::byte* keyOf(std::uint32_t row) const noexcept;
  [[nodiscard]] RowCheck check(std::uint32_t row) const noexcept;
  [[nodiscard]] Corruption corruptionOf(std::uint32_t row, const RowCheck& check) const;
  void requireIntact(std::uint32_t row) const;
  [[nodiscard]] std::optional<IndexPosition> locate(const void* key, std::uint32_t hash) const;
  [[nodiscard]] bool hasKey(std::uint32_t row, const void* key) const noexcept;

  [[nodiscard]] std::uint32_t takeRow();
  [[nodiscard]] std::size_t usedSize(const std::byte* record) const noexcept;
  void copyRecord(std::uint32_t row, std::byte* out) const noexcept;
  void fillCell(std::uint64_t* cell, std::uint32_t row, const std::byte* record,
                bool live) const noexcept;
  void copySpareCell(std::uint32_t row) noexcept;
  void commitRow(std::uint32_t row, const std::byte* record, bool live) noexcept;
  void publishChange() noexcept;
  void overwrite(std::uint32_t row, const std::byte* record);
  void insert(const std::byte* record, std::uint32_t hash);
  void removeRow(std::uint32_t row, std::optional<std::size_t> slot);
  void notify(const void* key);

  [[nodiscard]] std::optional<std::string> verifyRow(std::uint32_t row) const;
  [[nodiscard]] std::optional<std::string> verifyRows() const;

  // Constant after construction.
  const RecordLayout layout_;
  const RowGeometry geometry_;
  const TableOptions options_;
  std::optional<SegmentNames> names_;

  // Shared memory.
  std::shared_ptr<Korm::Segment> headerSegment_;
  std::shared_ptr<Korm::Segment> rowsSegment_;
  std::shared_ptr<LocalSegments> local_;
  std::uint64_t* header_ = nullptr;
  std::uint64_t* rows_ = nullptr;
  std::optional<Index> index_;

  // The writer's thread.
  std::uint64_t writerGeneration_ = 1;
  std::uint32_t rowCount_ = 0;
  std::size_t size_ = 0;
  std::uint64_t changeSequence_ = 0;
  std::vector<bool> occupied_;  // by row: holds a record, intact or corrupt
  std::deque<std::uint32_t> freeRows_;
  std::vector<std::uint64_t> staging_;  // the record, then its key as edit() found it
  std::optional<std::uint32_t> stagedRow_;
  Listener* listener_ = nullptr;
  CorruptionHandler corruptionHandler_;
  std::uint64_t corruptionCount_ = 0;
  std::string lastCorruption_;
  bool quiesced_ = true;
  MountState mountState_;
};

// Removes what is left of a table that no writer has; false, and nothing removed, when a writer has
// it or when what has its name is not a table. For a table that no writer can take over, because
// its records have another shape or its header is damaged.
bool removeTable(const std::string& shmName);
// The same for whoever cleans up when memory has run out: it allocates nothing unless it fails.
bool removeTable(const SegmentNames& names, const std::string& subject = {});

}  // namespace Vasta
