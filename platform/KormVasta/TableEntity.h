// An entity whose keyed collection `entry` is a shared-memory table. The activity thread of one
// process writes it; other processes read it by its segment name (SharedMemory.h).
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

  // The row in place, or null; see Vasta::Table for how long it stays readable.
  // Requires: `hash` is Korm::Hash of the key.
  // Throws: Vasta::Corruption.
  [[nodiscard]] const R* entry(const Key& key) const { return binding_.table().find(key); }
  [[nodiscard]] const R* entry(const Key& key, std::uint32_t hash) const {
    return binding_.table().find(key, hash);
  }
  // Inserts or overwrites, and then notifies the reactors of the key. The row stays written when a
  // reactor throws.
  void entryIs(const R& record) { binding_.table().is(record); }
  // Removes the row; false when there is none, and then nobody is notified.
  bool entryDel(const Key& key) { return binding_.table().del(key).has_value(); }
  // Removes all rows, corrupt ones too, and notifies of the key of each that is intact.
  // Requires: no reactor destroys the entity.
  // Throws: the first exception of a reactor, once all rows are gone.
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
        done =
            table().changeSequence() == sequence;  // nothing was removed: the table itself failed
      }
    }
    if (first) {
      std::rethrow_exception(std::move(first));
    }
  }
  [[nodiscard]] std::size_t entries() const noexcept { return binding_.table().size(); }

  // The next row of a walk, or null; the hint stays valid whatever changes.
  // Throws: Vasta::Corruption with the hint past the bad row.
  [[nodiscard]] const R* next(Vasta::Hint& hint) const { return binding_.table().next(hint); }

  // Told the key of every change.
  [[nodiscard]] Notifiees& entryNotifiees() const noexcept { return notifiees_; }

  // Passes a corruption that a reader of this process has found to the table's handler.
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
