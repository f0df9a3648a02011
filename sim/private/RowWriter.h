// Writes rows of the service's tables and records them in the transactions: a controller's updates,
// and the announcements of stored rows.
//
// Threads: the activity thread. Created for one batch.
// Ownership: refers to the service's objects, the transactions and the library, which outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Ostra/Ostra.h"
#include "Ostra/OstraSm.h"
#include "sim/Writes.h"
#include "sim/private/ServiceObjects.h"
#include "sim/private/Transactions.h"

namespace Sim {

class RowWriter {
 public:
  // `library` is null when it is stopped.
  RowWriter(ServiceObjects& objects, Transactions& transactions,
            const Ostra::OstraContext* library) noexcept
      : objects_{objects}, transactions_{transactions}, library_{library} {}

  // Applies an update and records its result so far. A range exception that leaves the library is a
  // result.
  void apply(const Update& update);

  // Prefetches what is stored of the flows that the updates will modify or delete, so that a batch
  // waits for memory a few times and not at every look-up of every update.
  // Requires: there are at most `prefetchable` updates.
  static constexpr std::size_t prefetchable = Ostra::OstraSm::prefetchable;
  void prefetch(std::span<const Update> updates) const;

  // How many rows are stored.
  [[nodiscard]] std::size_t storedRows();
  // Records the rows that an earlier process has left, and discards the damaged ones.
  void restore();
  // Adds an announcement to the batch for every stored row: members, groups, flows.
  void addAnnouncements();
  // Writes each of them again, in the same order, so that the library is notified. With
  // `groupsFirst` the hardware settles before the flows, which would be refused while it lacks
  // their groups.
  void announce(bool groupsFirst = false);
  // Flips a bit in the intact row of that handle, past its key; false when there is none.
  bool damage(P4Runtime::EntryHandle handle);

 private:
  // What differs between the kinds of rows.
  struct FlowRows;
  struct MemberRows;
  struct GroupRows;

  template <class Rows>
  void write(const Rows& rows, Op op, const typename Rows::Record& given);
  void reject(Result result, std::string message);
  // The handle of the row of that key, 0 when none is stored. For a damaged row it is the handle in
  // the transactions.
  template <class Rows>
  [[nodiscard]] P4Runtime::EntryHandle storedHandle(const Rows& rows,
                                                    const typename Rows::Record& given,
                                                    std::uint32_t hash);
  // Makes the change of the current update to `row`.
  template <class Rows, class Change>
  void perform(const Rows& rows, const typename Rows::Record& row, Change change);

  template <class Visit>
  void forEachKind(Visit visit);

  void prefetchFlows(std::uint8_t table, std::span<const Ostra::OstraKey* const> keys) const;
  // The library's state machine for a flow table; null when the library is stopped.
  [[nodiscard]] const Ostra::OstraSm* machine(std::uint8_t table) const;

  ServiceObjects& objects_;
  Transactions& transactions_;
  const Ostra::OstraContext* const library_;
};

}  // namespace Sim
