// What the library publishes about its entries for the service: a status record per flow, the tables of
// such records, and the entries whose result a VRF waits for.
//
// Thread and process rule: the activity thread. A record is a value that stands in shared memory, trivially
// copyable and without padding; a status table has this one writer and any number of reading processes.
// Ownership: an OstraStatus owns its table. While somebody else still holds its collection control, that
// control keeps the entity when its last outside reference has gone.
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

// The status of one flow entry. The default one is empty: no handle, success, not deleted, a default key.
class OstraStatusEntry : public P4Runtime::TableStatusEntryBase {
 public:
  using Key = OstraKey;
  static constexpr std::string_view vastaName = "Ostra::OstraStatusEntry";

  OstraStatusEntry() noexcept = default;
  OstraStatusEntry(const TableStatusEntryBase& status, const OstraKey& key) noexcept
      : TableStatusEntryBase{status}, key_{key} {}
  // Reads the text form, and moves `current` behind it. Throws Korm::ParseException for anything that
  // the text form would not print; where one attribute has a value that its type refuses, that is a
  // Korm::DeserializationException with the attribute's name.
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

  // For Korm::Generic: every attribute can be read, every one but the key written.
  [[nodiscard]] static std::span<const Korm::GenericAttribute<OstraStatusEntry>>
  genericAttributes() noexcept;

 private:
  OstraKey key_;
  // Fills up to eight bytes, whatever the size of the key. Always zero.
  std::array<std::byte, 8 - sizeof(OstraKey) % 8> reserved_{};
};
static_assert(std::is_trivially_copyable_v<OstraStatusEntry>);
static_assert(std::has_unique_object_representations_v<OstraStatusEntry>);

class OstraStatus;

// Decides what becomes of a status table's entity when its last outside reference goes: the collection
// control gets the entity, the entity lets go of the control, and this observer of itself leaves.
class OstraStatusZeroReferencesNotifiee final : public Korm::Notifiee<> {
 public:
  explicit OstraStatusZeroReferencesNotifiee(OstraStatus& status);

  void onAttribute() override;

 private:
  OstraStatus& status_;
};

// The status records of one flow table, by flow key, in a shared table of this entity. The table moves to
// the segment named after the entity's place once the entity is placed in a directory.
class OstraStatus final : public Korm::NamedEntity, private KormVasta::TableOwner<OstraKey> {
 public:
  using Table = KormVasta::TableBinding<OstraStatusEntry>::Table;
  using Notifiees = Korm::NotifieeList<const OstraKey&>;

  explicit OstraStatus(Korm::Name name);

  // The table, to read. What Vasta::Table says of records in place holds; a look-up or a walk throws
  // Vasta::Corruption.
  [[nodiscard]] const Table& table() const noexcept { return binding_.table(); }

  // Inserts the row of the entry's key or overwrites it, then the observers hear the key.
  void tableIs(const OstraStatusEntry& entry);
  // Removes the row; the observers hear the key. The entry removed, or the default one when there was
  // none or it is corrupt, and then nobody hears.
  OstraStatusEntry tableDel(const OstraKey& key);
  // Removes row by row with tableDel(). A corrupt row is passed over; the corruption handler hears of it.
  void tableDelAll();
  // The row in the writer's private copy, for the caller to change and hand to tableCommit(); null when
  // there is none or it is corrupt. The next tableEdit() takes the copy over.
  [[nodiscard]] OstraStatusEntry* tableEdit(const OstraKey& key);
  // Publishes in place what tableEdit() gave, then the observers hear the key. Nothing happens when the
  // row has gone meanwhile.
  void tableCommit(const OstraStatusEntry* entry);

  // A corruption that tableIs, tableDel or tableCommit meets goes to this handler and to no observer.
  void corruptionHandlerIs(Vasta::TableWriter::CorruptionHandler handler) {
    binding_.corruptionHandlerIs(std::move(handler));
  }

  // Called by the table service.
  void tableNotify(const OstraKey& key) override;
  void tableNotifyQuiesced(bool quiesced) override;
  void tableNotifyMountStatus() override;

  // Shows the state of the table, from the moment that it is set. Null once the entity has lost its last outside reference.
  [[nodiscard]] const Korm::Ptr<KormVasta::CollectionControl>& tableControl() const noexcept {
    return tableControl_;
  }
  void tableControlIs(Korm::Ptr<KormVasta::CollectionControl> control);

  // Told the key of each row that is written or removed.
  [[nodiscard]] Notifiees& notifieeList() const noexcept { return notifiees_; }

  // "tableIs" counts the calls of tableIs and tableCommit, "tableDel" those of tableDel, "tableNotify" the
  // changes that the observers were told.
  [[nodiscard]] const Korm::ActivityCounters& activityCounters() const noexcept {
    return counters_;
  }

  // Gives the table its place; see KormVasta::TableBinding for what that throws.
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

  // An index of sixteen or more is a programming error and asserts.
  [[nodiscard]] const Korm::Ptr<OstraStatus>& ostraStatus(std::uint64_t index) const noexcept;
  // Fills the slot (null empties it), lets go of what was there and tells the observers the index.
  // Nothing happens when the slot holds this very table.
  void ostraStatusIs(std::uint64_t index, Korm::Ptr<OstraStatus> status);
  // Empties the slot and tells the observers; the table that was there, or null, and then nobody hears.
  Korm::Ptr<OstraStatus> ostraStatusDel(std::uint64_t index);
  // Empties each occupied slot, in index order.
  void ostraStatusDelAll();

  // Told the index of each slot that got another table.
  [[nodiscard]] Notifiees& ostraStatusNotifiees() const noexcept { return ostraStatusNotifiees_; }

  struct Slot {
    FlowTableIndex index;
    Korm::Ptr<OstraStatus> status;
  };

  // Over the occupied slots in index order. Stays good across every change of the collection.
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
  // The first occupied slot from this index on, for walkers that keep the index as a number. Raises the
  // range exception of FlowTableIndex for a number that is none.
  [[nodiscard]] Iterator from(long long index) const {
    return {*this, FlowTableIndex{index}.value()};
  }

 private:
  std::array<Korm::Ptr<OstraStatus>, slots> ostraStatus_;
  mutable Notifiees ostraStatusNotifiees_;
};

// The entries whose next result belongs to a VRF root entry, with their VRF. The flow side adds an entry
// when it starts or ends a VRF's use; the status side removes it with the result.
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
  // The VRF that was recorded, or Vrf::VrfIdMap::none, and then nobody hears.
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
