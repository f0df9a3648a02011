// What the library publishes about its entries for the service: a status record per flow, the
// tables of such records, and the list of entries whose result a VRF waits for.
//
// Threads: the activity thread. A record is stored in shared memory, so it is trivially copyable
// and has no padding. A status table has one writer, its entity, and any number of reading
// processes.
// Ownership: an OstraStatus owns its table. After its last outside reference has been dropped, it
// lives on as long as somebody holds its collection control.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <iterator>
#include <span>
#include <string>
#include <type_traits>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/Activity.h"
#include "platform/Korm/Collection.h"
#include "platform/Korm/Entity.h"
#include "platform/Korm/Strep.h"
#include "platform/KormVasta/CollectionControl.h"
#include "platform/KormVasta/TableBinding.h"
#include "platform/P4Runtime/TableStatusEntryBase.h"
#include "platform/Vrf/Vrf.h"

namespace Ostra {

// The status of one flow entry. The default one is empty: no handle, success, not deleted, and a
// default key.
class OstraStatusEntry : public P4Runtime::TableStatusEntryBase {
 public:
  using Key = OstraKey;
  static constexpr std::string_view vastaName = "Ostra::OstraStatusEntry";

  OstraStatusEntry() noexcept = default;
  OstraStatusEntry(const TableStatusEntryBase& status, const OstraKey& key) noexcept
      : TableStatusEntryBase{status}, key_{key} {}
  // Reads the text form and moves `current` behind it.
  // Throws: Korm::ParseException for a text that valueToStrep() would not print. If only the value
  // of one attribute is refused, it is a Korm::DeserializationException with the attribute's name.
  OstraStatusEntry(std::string::const_iterator& current, std::string::const_iterator end);

  [[nodiscard]] const OstraKey& key() const noexcept { return key_; }

  // The keys are compared only when everything else is equal.
  friend bool operator==(const OstraStatusEntry& a, const OstraStatusEntry& b) noexcept {
    return static_cast<const TableStatusEntryBase&>(a) ==
               static_cast<const TableStatusEntryBase&>(b) &&
           a.key_ == b.key_;
  }
  // Whether the entry is the default one.
  [[nodiscard]] bool operator!() const noexcept { return *this == OstraStatusEntry{}; }

  // "Value('Ostra::OstraStatusEntry', ** {'genId': 1, 'entryHandle': 2, 'errorCode': success,
  // 'deleted': False, 'key': ...})", with the key in its own text form.
  [[nodiscard]] std::string valueToStrep() const;
  friend std::ostream& operator<<(std::ostream& out, const OstraStatusEntry& entry);

  // For Korm::Generic. Every attribute can be read, and every one but the key can be written.
  [[nodiscard]] static std::span<const Korm::GenericAttribute<OstraStatusEntry>>
  genericAttributes() noexcept;

 private:
  OstraKey key_;
  // Pads the record to a multiple of eight bytes. Always zero.
  std::array<std::byte, 8 - sizeof(OstraKey) % 8> reserved_{};
};
static_assert(std::is_trivially_copyable_v<OstraStatusEntry>);
static_assert(std::has_unique_object_representations_v<OstraStatusEntry>);

class OstraStatus;

// Observes the references to an OstraStatus. When the last outside reference has been dropped, it
// gives the collection control a reference to the entity, clears the entity's reference to the
// control, and detaches itself.
class OstraStatusZeroReferencesNotifiee final : public Korm::Notifiee<> {
 public:
  explicit OstraStatusZeroReferencesNotifiee(OstraStatus& status);

  void onAttribute() override;

 private:
  OstraStatus& status_;
};

// The status records of one flow table, by flow key, in a shared table of this entity. When the
// entity is placed in a directory, the table moves to the segment that is named after this place.
class OstraStatus final : public Korm::NamedEntity, private KormVasta::TableOwner<OstraKey> {
 public:
  using Table = KormVasta::TableBinding<OstraStatusEntry>::Table;
  using Notifiees = Korm::NotifieeList<const OstraKey&>;

  explicit OstraStatus(Korm::Name name);

  // The table, to read. See Vasta::Table for how long a record in place stays readable.
  // Throws: Vasta::Corruption from a look-up or a walk.
  [[nodiscard]] const Table& table() const noexcept { return binding_.table(); }

  // Inserts or overwrites the row of the entry's key, then tells the observers the key.
  void tableIs(const OstraStatusEntry& entry);
  // Removes the row, tells the observers the key, and returns the entry that was removed. If there
  // is no such row, or it is corrupt, returns the default entry and tells nobody.
  OstraStatusEntry tableDel(const OstraKey& key);
  // Calls tableDel() for each row. A corrupt row is reported to the corruption handler and stays.
  void tableDelAll();
  // The row in the writer's private copy, for the caller to change and hand to tableCommit(). Null
  // if there is no such row or it is corrupt. The next tableEdit() uses the same copy.
  [[nodiscard]] OstraStatusEntry* tableEdit(const OstraKey& key);
  // Publishes the copy that tableEdit() gave, then tells the observers the key. Nothing happens if
  // the row has been removed meanwhile.
  void tableCommit(const OstraStatusEntry* entry);

  // Called for a corruption that tableIs, tableDel or tableCommit finds. The observers are not told
  // of the change then.
  void corruptionHandlerIs(Vasta::TableWriter::CorruptionHandler handler) {
    binding_.corruptionHandlerIs(std::move(handler));
  }

  // Called by the table service.
  void tableNotify(const OstraKey& key) override;
  void tableNotifyQuiesced(bool quiesced) override;
  void tableNotifyMountStatus() override;

  // Shows the state of the table from when the control is set. Null once the last outside reference
  // to the entity has been dropped.
  [[nodiscard]] const Korm::Ptr<KormVasta::CollectionControl>& tableControl() const noexcept {
    return tableControl_;
  }
  void tableControlIs(Korm::Ptr<KormVasta::CollectionControl> control);

  // Told the key of each row that is written or removed.
  [[nodiscard]] Notifiees& notifieeList() const noexcept { return notifiees_; }

  // "tableIs" counts the calls of tableIs and tableCommit, "tableDel" those of tableDel, and
  // "tableNotify" the changes that were notified.
  [[nodiscard]] const Korm::ActivityCounters& activityCounters() const noexcept {
    return counters_;
  }

  // Moves the table to its segment.
  // Throws: what KormVasta::TableBinding::handleParent() throws.
  void handleParent(Korm::Dir& parent) override { binding_.handleParent(parent, name()); }

 private:
  template <class Change>
  void changeTable(Change change);

  mutable Notifiees notifiees_;
  Korm::ActivityCounters counters_;
  Korm::ActivityCounters::Counter& tableIsCount_;
  Korm::ActivityCounters::Counter& tableDelCount_;
  Korm::ActivityCounters::Counter& tableNotifyCount_;
  KormVasta::TableBinding<OstraStatusEntry> binding_;
  Korm::Ptr<KormVasta::CollectionControl> tableControl_;
  OstraStatusZeroReferencesNotifiee zeroReferencesNotifiee_;
};

// The status tables by flow table index: sixteen slots, each with a table or null.
class OstraStatusTableColl final : public Korm::NamedEntity {
 public:
  static constexpr std::size_t slots = FlowTableIndex::max + 1;
  using Notifiees = Korm::NotifieeList<const FlowTableIndex&>;

  using NamedEntity::NamedEntity;

  // Requires, for every operation on a slot: `index` is less than 16, which is asserted.
  [[nodiscard]] const Korm::Ptr<OstraStatus>& ostraStatus(std::uint64_t index) const noexcept;
  // Puts the table into the slot, or empties it for null, and tells the observers the index.
  // Nothing happens if the slot holds the same table already.
  void ostraStatusIs(std::uint64_t index, Korm::Ptr<OstraStatus> status);
  // Empties the slot, tells the observers, and returns the table that was there. Returns null and
  // tells nobody if the slot is empty already.
  Korm::Ptr<OstraStatus> ostraStatusDel(std::uint64_t index);
  // Empties each occupied slot, in index order.
  void ostraStatusDelAll();

  // Told the index of each slot that got another table.
  [[nodiscard]] Notifiees& ostraStatusNotifiees() const noexcept { return ostraStatusNotifiees_; }

  struct Slot {
    FlowTableIndex index;
    Korm::Ptr<OstraStatus> status;
  };

  // Visits the occupied slots in index order. Stays valid when the collection changes.
  class Iterator {
   public:
    using value_type = Slot;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    Iterator(const OstraStatusTableColl& coll, std::size_t position)
        : coll_{&coll}, position_{position} {
      skipEmpty();
    }

    [[nodiscard]] Slot operator*() const {
      return {FlowTableIndex{static_cast<long long>(position_)}, coll_->ostraStatus_[position_]};
    }
    Iterator& operator++() noexcept {
      ++position_;
      skipEmpty();
      return *this;
    }
    Iterator operator++(int) noexcept {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator&, const Iterator&) noexcept = default;

   private:
    void skipEmpty() noexcept {
      while (position_ < slots && !coll_->ostraStatus_[position_]) {
        ++position_;
      }
    }

    const OstraStatusTableColl* coll_ = nullptr;
    std::size_t position_ = 0;
  };

  [[nodiscard]] Iterator begin() const { return {*this, 0}; }
  [[nodiscard]] Iterator end() const { return {*this, slots}; }
  // The first occupied slot from this index on, for a walk that keeps the index as a number.
  // Throws: Korm::RangeException for a number that is no FlowTableIndex.
  [[nodiscard]] Iterator from(long long index) const {
    return {*this, FlowTableIndex{index}.value()};
  }

 private:
  std::array<Korm::Ptr<OstraStatus>, slots> ostraStatus_;
  mutable Notifiees ostraStatusNotifiees_;
};

// The entries whose next result must be delivered to the root entry of a VRF, with that VRF. The
// flow side adds an entry that is the first or the last user of a VRF. The status side removes the
// entry when it delivers the result.
class OstraStatusInfo final : public Korm::Entity {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using DependentHandles = Korm::Collection<P4Runtime::EntryHandle, VrfId>;

  [[nodiscard]] const DependentHandles& dependentHandleToVrfMap() const noexcept {
    return dependentHandleToVrfMap_;
  }
  // Vrf::VrfIdMap::none for an entry that is not there.
  [[nodiscard]] VrfId dependentHandleToVrfMap(P4Runtime::EntryHandle handle) const noexcept {
    const VrfId* const vrf = dependentHandleToVrfMap_.find(handle);
    return vrf == nullptr ? Vrf::VrfIdMap::none : *vrf;
  }
  // Inserts or overwrites. Each change tells the observers the handle.
  void dependentHandleToVrfMapIs(P4Runtime::EntryHandle handle, VrfId vrf) {
    dependentHandleToVrfMap_.is(handle, vrf);
  }
  // Returns the VRF that was recorded. Returns Vrf::VrfIdMap::none, and tells nobody, if there was
  // none.
  VrfId dependentHandleToVrfMapDel(P4Runtime::EntryHandle handle) {
    return dependentHandleToVrfMap_.del(handle).value_or(Vrf::VrfIdMap::none);
  }
  void dependentHandleToVrfMapDelAll() { dependentHandleToVrfMap_.delAll(); }

 private:
  DependentHandles dependentHandleToVrfMap_;
};

// New entities with their notifications on.
[[nodiscard]] Korm::Ptr<OstraStatus> ostraStatusFactory(Korm::Name name);
[[nodiscard]] Korm::Ptr<OstraStatusTableColl> ostraStatusTableCollFactory(Korm::Name name);
[[nodiscard]] Korm::Ptr<OstraStatusInfo> ostraStatusInfoFactory();

}  // namespace Ostra
