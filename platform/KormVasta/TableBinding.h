// The binding of a shared-memory table to the entity that owns it. For the activity thread of the
// writing process. The entity owns the binding, and the binding owns the table.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/Korm/Activity.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/Vasta/Table.h"

namespace KormVasta {

// What the table service tells the entity that owns a table.
template <class Key>
class TableOwner {
 public:
  // A row was inserted, overwritten or removed; the change is committed.
  virtual void tableNotify(const Key& key) = 0;
  // The table became quiet (true), or busy with a first change after that (false).
  virtual void tableNotifyQuiesced(bool quiesced) = 0;
  // The table's mount state has changed.
  virtual void tableNotifyMountStatus() = 0;

 protected:
  ~TableOwner() = default;
};

// A writable table of records. At first it is in anonymous memory. When its entity is placed in the
// tree and the process has named shared memory (SharedMemory.h), it moves with its rows to the
// segment named after its place, which invalidates references to the table and its rows. Rows that
// it takes over there are not notified; the last corrupt one is reported to the corruption handler.
// The table becomes quiet when the activity has nothing else to do.
template <Vasta::Record R>
class TableBinding final : private Vasta::TableWriter::Listener {
 public:
  using Key = typename R::Key;
  using Table = Vasta::Table<R>;

  TableBinding(std::string name, TableOwner<Key>& owner)
      : name_{std::move(name)}, owner_{owner}, table_{makeTable(name_, {})} {
    table_->listenerIs(this);
  }
  TableBinding(const TableBinding&) = delete;
  TableBinding& operator=(const TableBinding&) = delete;
  ~TableBinding() override { table_->listenerIs(nullptr); }

  [[nodiscard]] Table& table() noexcept { return *table_; }
  [[nodiscard]] const Table& table() const noexcept { return *table_; }

  // The handler stays in place when the table moves.
  void corruptionHandlerIs(Vasta::TableWriter::CorruptionHandler handler) {
    corruptionHandler_ = std::move(handler);
    table_->corruptionHandlerIs(corruptionHandler_);
  }

  // Moves the table to the segment named after its entity's path.
  // Throws: Vasta::AttachError or std::system_error when it cannot get that segment; the table then
  // stays where it was, and its mount state is failed_.
  void handleParent(const Korm::Dir& parent, const Korm::Name& entity) {
    const std::string above = parent.path();
    const std::string path = (above.empty() ? entity : above + "/" + entity) + "/" + name_;
    table_->mountStateIs(Vasta::MountState::mounting_);
    try {
      const std::string segment = prepareSegment(path);
      if (!segment.empty() && segment != segment_) {
        moveTo(path, segment);
      }
    } catch (...) {
      table_->mountStateIs(Vasta::MountState::failed_);
      throw;
    }
    table_->mountStateIs(Vasta::MountState::mounted_);
  }

 private:
  [[nodiscard]] static std::unique_ptr<Table> makeTable(const std::string& name,
                                                        const std::string& segment) {
    return std::make_unique<Table>(
        Vasta::TableOptions{.name = name,
                            .shmName = segment,
                            .unlinkOnClose = !sharedMemory().takeOver,
                            .mountState = Vasta::MountState::unmounted_});
  }

  void moveTo(const std::string& path, const std::string& segment) {
    auto named = makeTable(path, segment);
    Vasta::Hint hint;
    while (const R* record = table_->next(hint)) {
      named->is(*record);
    }
    named->mountStateIs(table_->mountState());
    if (table_->isQuiesced()) {
      named->quiesce();
    }
    const bool wasBusy = !table_->isQuiesced();
    table_->listenerIs(nullptr);
    table_ = std::move(named);
    segment_ = segment;
    table_->listenerIs(this);
    table_->corruptionHandlerIs(corruptionHandler_);
    if (wasBusy && table_->isQuiesced()) {
      owner_.tableNotifyQuiesced(true);
    }
    if (corruptionHandler_ && table_->corruptionCount() > 0) {
      corruptionHandler_(table_->lastCorruption());
    }
  }

  void recordChanged(const void* key) override {
    owner_.tableNotify(*static_cast<const Key*>(key));
  }
  void quiescedChanged(bool quiesced) override {
    if (!quiesced) {
      Korm::activity().defer([this, alive = std::weak_ptr<void>{alive_}] {
        if (!alive.expired()) {
          table_->quiesce();
        }
      });
    }
    owner_.tableNotifyQuiesced(quiesced);
  }
  void mountStateChanged() override { owner_.tableNotifyMountStatus(); }

  const std::string name_;
  TableOwner<Key>& owner_;
  std::unique_ptr<Table> table_;
  std::string segment_;  // of the table; empty while it is anonymous
  Vasta::TableWriter::CorruptionHandler corruptionHandler_;
  const std::shared_ptr<void> alive_ = std::make_shared<char>();
};

}  // namespace KormVasta
