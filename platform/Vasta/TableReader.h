// The reading side of a table, on records as bytes; for another process than the writer's, or for
// another thread. Reader<R> in Reader.h is its typed face.
//
// Thread and process rule: one reader object per thread. It never waits for the writer, alive or dead,
// never writes to the table, and always has the last committed record. It stays good when the writer
// dies and when another one takes the table over.
//
// Ownership and invariants: owns its mappings, all read-only. Once the writer has removed the table,
// a look-up throws AttachError if it needs an index that was not mapped by then.
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

// How far a follower has come. A new cursor stands before all changes: to follow from it gives every
// record there is. Opaque but for its sequence and its epoch.
struct FeedCursor {
  std::uint64_t sequence = 0;  // of the last change that was told
  std::uint64_t epoch = 0;     // of the writer at that time
  std::uint32_t scanRow = 0;   // where a look at all rows goes on,
  std::uint64_t scanEnd = 0;   // and the sequence that it brings the cursor to; 0: none under way
};

// What a follower is told: the state of a row. A row holds one record at a time, so a record that was
// removed and whose row holds another one by now shows only by the new one standing in its row.
struct RowChange {
  std::uint32_t row = 0;
  std::uint64_t sequence = 0;         // of the change that made it so
  bool live = false;                  // false: the record was removed
  std::span<const std::byte> record;  // for a removed one, as it was last; good during the call
};

struct FollowResult {
  std::size_t told = 0;
  bool fellBehind = false;     // the feed had gone over the cursor, so all newer rows were told
  bool writerChanged = false;  // another writer has the table than when the cursor last moved
};

class TableReader {
 public:
  class Follower {
   public:
    virtual ~Follower() = default;
    // An exception leaves follow(), and the change is told again the next time.
    virtual void rowChanged(const RowChange& change) = 0;
  };

  // Attaches to a named table. Throws AttachError when there is none or when it is not a table of
  // `layout`, std::system_error when the system refuses.
  TableReader(std::string shmName, const RecordLayout& layout);
  // Attaches to a table of whatever records.
  explicit TableReader(std::string shmName);
  // Attaches within the writer's process; see TableWriter::segments().
  TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout& layout);

  [[nodiscard]] const RowGeometry& geometry() const noexcept { return geometry_; }

  // Copies the record of this key to `record`, which has room for one; false when there is none, with
  // `record` untouched. `hash` is the key's under the writer's hash. Throws Corruption.
  [[nodiscard]] bool find(const void* key, std::uint32_t hash, std::byte* record);

  // Copies the next record of a walk in the order of rows; false at the end. A record that is there for
  // the whole walk is met exactly once. Throws Corruption with the hint already past the record.
  [[nodiscard]] bool next(Hint& hint, std::byte* record);

  // Tells every row that has changed since the cursor, at least once each, in its latest state, and
  // moves the cursor. Throws Corruption for a corrupt row with the cursor already past it.
  FollowResult follow(FeedCursor& cursor, Follower& follower);

  [[nodiscard]] std::size_t size() const noexcept;
  // Another writer has taken the table over when this has changed.
  [[nodiscard]] std::uint64_t epoch() const noexcept;
  [[nodiscard]] std::uint64_t changeSequence() const noexcept;
  // The writer has removed the table: what is mapped stays readable but changes no more, and a new
  // table of that name is attached by a new reader.
  [[nodiscard]] bool isRemoved() const noexcept;

 private:
  enum class RowState { vacant_, removed_, live_ };

  TableReader(std::shared_ptr<SegmentSource> source, const RecordLayout* layout);

  void attachRows();
  // Whether the index in force is another one than at the last call; maps it then.
  bool refreshIndex();
  [[nodiscard]] std::uint64_t header(std::size_t word) const noexcept;
  [[nodiscard]] const std::uint64_t* rowWords(std::uint32_t row) const;
  void prefetch(std::uint32_t row) const;
  // Takes the row's committed cell to cell_. Throws Corruption.
  RowState copyRow(std::uint32_t row);
  [[nodiscard]] bool lookUp(const void* key, std::uint32_t hash);
  [[nodiscard]] std::uint64_t copiedSequence() const noexcept {
    return cell_[geometry_.sequenceWord()];
  }

  bool followFeed(FeedCursor& cursor, std::uint64_t end, Follower& follower, FollowResult& result);
  void followRows(FeedCursor& cursor, Follower& follower, FollowResult& result);
  void tell(std::uint32_t row, RowState state, Follower& follower, FollowResult& result) const;

  // Constant after construction.
  const std::shared_ptr<SegmentSource> source_;
  const std::shared_ptr<Segment> header_;
  const RowGeometry geometry_;
  const std::size_t prefetchedBytes_;
  std::shared_ptr<Segment> rows_;
  // The reader's thread.
  std::shared_ptr<Segment> index_;
  IndexView indexView_;
  std::uint64_t generation_ = 0;
  std::vector<std::uint64_t> cell_;
  std::size_t used_ = 0;  // record words in cell_; zeros behind them
};

}  // namespace Vasta
