// Writes rows of the service's tables, and tells the books of each: a controller's updates, and the
// announcement of what is stored.
//
// Thread and process rule: the activity thread. Made for one batch.
// Ownership: refers to the service's objects and books, and to the library, which outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Ostra/Ostra.h"
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

  // Applies an update, which is then in the books with what has come of it so far. A range
  // exception that leaves the library is such a result.
  void apply(const Update& update);

  // Has the library start to load what it knows of the flows that the updates will remove.
  void prefetchRemoved(std::span<const Update> updates) const;

  // How many rows are stored.
  [[nodiscard]] std::size_t storedRows();
  // Enters the rows that an earlier process left into the books, and discards those that are
  // damaged.
  void restore();
  // Enters every stored row as an announcement: members, groups, flows.
  void enterAnnouncements();
  // Writes each of them again, in the same order, so that the library hears of it. `groupsFirst`:
  // the hardware settles before the flows, which are refused as long as it does not have their
  // groups.
  void announce(bool groupsFirst = false);
  // Flips a bit in the intact row of that handle, past its key; false when there is none.
  bool damage(P4Runtime::EntryHandle handle);

 private:
  // What a kind of row differs in.
  struct FlowRows;
  struct MemberRows;
  struct GroupRows;

  template <class Rows>
  void write(const Rows& rows, Op op, const typename Rows::Record& given);
  void reject(Result result, std::string message);
  // The handle of the row of that key, 0 when none is stored. Of a damaged row it is the one in the
  // books.
  template <class Rows>
  [[nodiscard]] P4Runtime::EntryHandle storedHandle(const Rows& rows,
                                                    const typename Rows::Record& given,
                                                    std::uint32_t hash);
  // Makes the change of `row` that the current update stands for.
  template <class Rows, class Change>
  void perform(const Rows& rows, const typename Rows::Record& row, Change change);

  template <class Visit>
  void forEachKind(Visit visit);
  // For damaged rows that are passed over.
  [[nodiscard]] auto faultCollector() const {
    return [this](const std::exception& fault) { objects_.faults.add(fault.what()); };
  }

  // The library's machine for a flow table; null when the library is stopped.
  [[nodiscard]] const Ostra::OstraSm* machine(std::uint8_t table) const;

  ServiceObjects& objects_;
  Transactions& transactions_;
  const Ostra::OstraContext* const library_;
};

}  // namespace Sim
