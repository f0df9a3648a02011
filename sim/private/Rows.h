// A walk over the rows of a table, some of which may be damaged.
//
// Threads: the activity thread.
#pragma once

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Record.h"

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

}  // namespace Sim
