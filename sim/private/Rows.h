// Walks over the rows of a table, some of which may be damaged.
//
// Threads: the activity thread.
#pragma once

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Record.h"
#include "sim/private/Faults.h"

namespace Sim {

// Calls visit(row) for each intact row and damaged(corruption) for each other row. `visit` may
// change the table.
template <class Table, class Visit, class Damaged>
void forEachRow(const Table& table, Visit visit, Damaged damaged) {
  Vasta::Hint hint;
  const auto next = [&]() -> decltype(table.next(hint)) {
    for (;;) {
      try {
        return table.next(hint);
      } catch (const Vasta::Corruption& corruption) {
        damaged(corruption);
      }
    }
  };
  while (const auto* const row = next()) {
    visit(*row);
  }
}

// Calls visit(row) for each intact row, and adds the others to the faults.
template <class Table, class Visit>
void forEachIntactRow(const Table& table, Faults& faults, Visit visit) {
  forEachRow(table, visit,
             [&faults](const Vasta::Corruption& corruption) { faults.add(corruption.what()); });
}

// The same for rows that an earlier process has left: damaged ones are removed.
template <class Table, class Visit>
void restoreRows(Table& table, Faults& faults, Visit visit) {
  forEachRow(table, visit, [&](const Vasta::Corruption& corruption) {
    faults.addDropped(corruption.what());
    table.table().discard(corruption.row());
  });
}

}  // namespace Sim
