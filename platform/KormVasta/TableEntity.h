// An entity whose keyed collection `entry` is a shared-memory table.
//
// Thread and process rule: one writing process, on its activity thread; other processes read the
// table by its segment name (SharedMemory.h).
#pragma once

#include <exception>
#include <string>

#include "platform/Korm/Entity.h"
#include "platform/KormVasta/TableBinding.h"

namespace KormVasta {

template <Vasta::Record R>
class TableEntity : public Korm::NamedEntity, private TableOwner<typename R::Key> {
 public:
  using Record = R;
  using Key = typename R::Key;
  using Notifiees = Korm::NotifieeList<const Key&>;

  explicit TableEntity(Korm::Name name = {})
      : NamedEntity{std::move(name)}, binding_{"entry", *this} {}

  // The row in place, or null; see Vasta::Table for how long it stays readable. Throws
  // Vasta::Corruption. `hash` is Korm::Hash of the key, for a caller that has it already.
  [[nodiscard]] const R* entry(const Key& key) const { return binding_.table().find(key); }
  [[nodiscard]] const R* entry(const Key& key, std::uint32_t hash) const {
    return binding_.table().find(key, hash);
  }
  // Inserts or overwrites, then tells the reactors the key. An exception from a reactor leaves the
  // row written.
  void entryIs(const R& record) { binding_.table().is(record); }
  // Whether there was such a row; only then are the reactors told.
  bool entryDel(const Key& key) { return binding_.table().del(key).has_value(); }
  // Removes row by row, corrupt ones too, telling the key of each that is intact. An exception from
  // a reactor leaves when all have gone. The entity must not be destroyed meanwhile.
  void entryDelAll() {
    std::exception_ptr first;
    for (bool done = false; !done;) {
      const std::uint64_t sequence = table().changeSequence();
      try {
        table().delAll();
        done = true;
      } catch (...) {
        if (!first) {
          first = std::current_exception();
        }
        done = table().changeSequence() == sequence;  // it was the table that could not go on
      }
    }
    if (first) {
      std::rethrow_exception(std::move(first));
    }
  }
  [[nodiscard]] std::size_t entries() const noexcept { return binding_.table().size(); }

  // Walks the rows; the hint stays good whatever changes. Throws Vasta::Corruption with the hint
  // past the bad row.
  [[nodiscard]] const R* next(Vasta::Hint& hint) const { return binding_.table().next(hint); }

  // Told the key of every change.
  [[nodiscard]] Notifiees& entryNotifiees() const noexcept { return notifiees_; }

  // Hands a corruption met by a reader of this process to the table's handler.
  void reportCorruption(const std::string& message) { binding_.table().reportCorruption(message); }
  void corruptionHandlerIs(Vasta::TableWriter::CorruptionHandler handler) {
    binding_.corruptionHandlerIs(std::move(handler));
  }

  [[nodiscard]] Vasta::Table<R>& table() noexcept { return binding_.table(); }
  [[nodiscard]] const Vasta::Table<R>& table() const noexcept { return binding_.table(); }

  void handleParent(Korm::Dir& parent) override { binding_.handleParent(parent, name()); }

 private:
  void tableNotify(const Key& key) override { notifiees_.notify(key); }
  void tableNotifyQuiesced(bool /*quiesced*/) override {}
  void tableNotifyMountStatus() override {}

  mutable Notifiees notifiees_;
  TableBinding<R> binding_;
};

}  // namespace KormVasta
