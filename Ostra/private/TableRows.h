// Reads the service's tables, whose rows may be corrupt. Private to the library.
#pragma once

#include <optional>
#include <type_traits>

#include "Ostra/private/StepTrace.h"
#include "platform/Korm/Ptr.h"
#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Table.h"

namespace Ostra {

// The result of `read`. Nothing when it finds a corruption, which is reported to the table unless
// it is a dry run that reads.
template <class Table, class Read>
auto reportingCorruption(Table& table, Read read) -> std::optional<std::invoke_result_t<Read>> {
  try {
    return read();
  } catch (const Vasta::Corruption& corruption) {
    if (!DryRun::active()) {
      table.reportCorruption(corruption.what());
    }
    return std::nullopt;
  }
}

// The row in place. Null when there is no such row, or no table, or the row is corrupt.
template <class Table>
const typename Table::Record* findRow(const Korm::Ptr<Table>& table,
                                      const typename Table::Key& key) {
  return table ? reportingCorruption(*table, [&] { return table->entry(key); }).value_or(nullptr)
               : nullptr;
}

// What a walk does at a corrupt row.
enum class AtCorruption : bool { stop_, goOn_ };

// Calls visit(row) for each row in place. The table may change meanwhile, and may be null.
template <class Table, class Visit>
void forEachRow(Korm::Ptr<Table> table, AtCorruption atCorruption, Visit visit) {
  if (!table) {
    return;
  }
  Vasta::Hint hint;
  for (;;) {
    const auto row = reportingCorruption(*table, [&] { return table->next(hint); });
    if (row == nullptr || (!row && atCorruption == AtCorruption::stop_)) {
      return;
    }
    if (row) {
      visit(**row);
    }
  }
}

}  // namespace Ostra
