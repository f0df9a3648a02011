// The reading side of a table, on records as bytes; for another process than the writer's, or for
// another thread. Reader<R> in Reader.h is its typed face.
//
// Threads: one reader object per thread. It never waits for the writer, alive or dead, never writes
// to the table, and always finds the last committed record. It stays valid when the writer dies and
// when another one takes the table over.
//
// Ownership: owns its mappings, which are all read-only. Once the writer has removed the table, a
// look-up throws AttachError if it needs an index that was not mapped before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Vasta/Index.h"
#include "platform/Vasta/Layout.h"
#include "platform/Vasta/Record.h"
#include "platform/Vasta/SegmentSource.h"

namespace Vasta {

// How far a follower has come. A new cursor is before all changes, so following from it visits
// every record. Only the sequence and the writer generation are meant for the caller.
struct FollowCursor {
  std::uint64_t sequence = 0;          // all changes up to this one were reported
  std::uint64_t writerGeneration = 0;  // the writer at that time
  std::uint32_t nextRow = 0;           // where the current pass over the rows continues
  std::uint64_t passEnd = 0;           // the sequence at the end of that pass; 0: no pass
};

// What a follower is told: the state of a row. When a record was removed and its row was reused
// since, the follower is told only of the new record in that row.
struct RowChange {
  std::uint32_t row = 0;
  std::uint64_t sequence = 0;         // of the row's latest change
  bool live = false;                  // false: the record was removed
  std::span<const std::byte> record;  // a removed one as it was last; valid during the call
};

struct FollowResult {
  std::size_t told = 0;
  bool writerChanged = false;  // another writer has taken the table over since the last call
};

class TableReader {
 public:
  class Follower {
   public:
    virtual ~Follower() = default;
    // An exception leaves follow(); the next call reports the change again.
    virtual void rowChanged(const RowChange& change) = 0;
  };

  // Attaches to a named table.
  // Throws: AttachError when there is none or when it is not a table of `layout`, std::system_error
  // when the system refuses.
  TableReader(std::string shmName, const RecordLayout& layout);
  // Attaches within the writer's process; see TableWriter::segments().
  TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout& layout);

  [[nodiscard]] const RowGeometry& geometry() const noexcept { return geometry_; }

  // Copies the record of this key to `record`, which has room for one; false when there is none,
  // with `record` untouched. `hash` is the key's under the writer's hash.
  // Throws: Corruption.
  [[nodiscard]] bool find(const void* key, std::uint32_t hash, std::byte* record);

  // Copies the next record of a walk in the order of rows; false at the end. A record that is there
  // for the whole walk is met exactly once.
  // Throws: Corruption with the hint already past the record.
  [[nodiscard]] bool next(Hint& hint, std::byte* record);

  // Reports every row that has changed since the cursor, at least once each, in its latest state,
  // and moves the cursor. If there was any change, it reads the change sequence of every row. A
  // cursor beyond the latest change starts over: that happens when damaged changes were lost with a
  // writer. Throws: Corruption for a corrupt row, with the cursor already past it; AttachError when
  // the header is damaged.
  FollowResult follow(FollowCursor& cursor, Follower& follower);

  // These are counters of the header. Throws: AttachError when one is damaged.
  [[nodiscard]] std::size_t size() const { return counter(Header::size_); }
  [[nodiscard]] std::uint64_t changeSequence() const { return counter(Header::changeSequence_); }
  // Another writer has taken the table over when this has changed.
  [[nodiscard]] std::uint64_t writerGeneration() const {
    return counter(Header::writerGeneration_);
  }
  // Whether the writer has removed the table. What is mapped stays readable but no longer changes.
  // A new table of that name needs a new reader.
  [[nodiscard]] bool isRemoved() const noexcept;

 private:
  void attachRows();
  // Maps the index in force; false when it is the one that is mapped already.
  bool refreshIndex();
  [[nodiscard]] std::uint64_t header(std::size_t word) const noexcept;
  [[nodiscard]] std::uint64_t counter(std::size_t word) const;
  // How many rows there are, all of which may be read.
  // Throws: AttachError when that number is damaged.
  [[nodiscard]] std::uint32_t rowCount();
  // Requires: there is such a row.
  [[nodiscard]] std::uint64_t versionOf(std::uint32_t row) const noexcept;
  // Copies the row's committed cell to cell_.
  // Throws: Corruption.
  RowState copyRow(std::uint32_t row);
  [[nodiscard]] bool lookUp(const void* key, std::uint32_t hash);
  void tell(FollowCursor& cursor, Follower& follower, FollowResult& result);

  // Constant after construction.
  const std::shared_ptr<SegmentSource> source_;
  const std::shared_ptr<Korm::Segment> header_;
  const RowGeometry geometry_;
  std::shared_ptr<Korm::Segment> rows_;
  // The reader's thread.
  std::uint64_t readableRows_ = 0;
  std::shared_ptr<Korm::Segment> index_;
  IndexView indexView_;
  std::optional<std::uint64_t> generation_;  // of the index that is mapped
  // The row that was copied last.
  std::vector<std::uint64_t> cell_;
  std::size_t used_ = 0;  // record words in cell_; zeros behind them
  std::uint64_t sequence_ = 0;
};

}  // namespace Vasta
