#include "sim/private/RowWriter.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Korm/Activity.h"
#include "platform/Korm/Exceptions.h"
#include "sim/TablePaths.h"
#include "sim/private/Rows.h"

namespace Sim {

using P4Runtime::EntryHandle;
using P4Runtime::MemberOrGroupId;

// Each of these three has the table, the id and the name of a row in results and messages, and the
// maps that the service keeps for a kind of row.

struct RowWriter::FlowRows {
  using Record = Ostra::OstraConfigEntry;
  static constexpr Kind kind = Kind::flow_;

  [[nodiscard]] Ostra::OstraConfig& table() const { return writer.objects_.flowTable(index); }
  [[nodiscard]] static MemberOrGroupId id(const Record& /*row*/) noexcept { return 0; }
  [[nodiscard]] static std::string name(const Record& /*row*/) { return "a flow with this key"; }

  static void handleIs(Record& row, EntryHandle handle) noexcept {
    row.entryHandle = handle;
    row.entryId = static_cast<std::uint32_t>(handle);
  }
  void stored(const Record& row) const {
    writer.transactions_.flowIs(row.entryHandle, index, row.flowKey);
  }
  void removed(const Record& /*row*/) const {}
  // The recorded handle of a key whose row cannot be read.
  [[nodiscard]] EntryHandle known(const Record& row) const {
    return writer.transactions_.storedFlow(index, row.flowKey);
  }
  // The handle under which the library will act on a delete, if it differs from the row's.
  [[nodiscard]] EntryHandle deleteHandle(const Record& row, std::uint32_t hash,
                                         EntryHandle handle) const {
    const Ostra::OstraSm* const machine = writer.machine(index);
    if (machine == nullptr) {
      return {};
    }
    const EntryHandle known{machine->flowKeyToEntryHandle({row.flowKey, hash}).value_or(0)};
    return known == handle ? EntryHandle{} : known;
  }

  RowWriter& writer;
  std::uint8_t index;
};

struct RowWriter::MemberRows {
  using Record = P4RuntimeRouting::NexthopInfo;
  static constexpr Kind kind = Kind::member_;

  [[nodiscard]] P4RuntimeRouting::EcmpMember& table() const {
    return writer.objects_.memberTable();
  }
  [[nodiscard]] static MemberOrGroupId id(const Record& row) noexcept { return row.memberId; }
  [[nodiscard]] static std::string name(const Record& row) {
    return "member " + std::to_string(row.memberId);
  }

  static void handleIs(Record& row, EntryHandle handle) noexcept { row.entryHandle = handle; }
  void stored(const Record& row) const {
    writer.transactions_.memberIs(row.entryHandle);
    writer.objects_.handles->memberIs(row.memberId, row.entryHandle);
  }
  void removed(const Record& row) const { writer.objects_.handles->memberDel(row.memberId); }
  [[nodiscard]] EntryHandle known(const Record& row) const {
    return writer.objects_.handles->getEntryHandleFromMemberId(row.memberId);
  }
  [[nodiscard]] static EntryHandle deleteHandle(const Record& /*row*/, std::uint32_t /*hash*/,
                                                EntryHandle /*handle*/) noexcept {
    return {};
  }

  RowWriter& writer;
};

struct RowWriter::GroupRows {
  using Record = P4RuntimeRouting::EcmpMemberList;
  static constexpr Kind kind = Kind::group_;

  [[nodiscard]] P4RuntimeRouting::EcmpGroup& table() const { return writer.objects_.groupTable(); }
  [[nodiscard]] static MemberOrGroupId id(const Record& row) noexcept { return row.groupId; }
  [[nodiscard]] static std::string name(const Record& row) {
    return "group " + std::to_string(row.groupId);
  }

  static void handleIs(Record& row, EntryHandle handle) noexcept { row.entryHandle = handle; }
  void stored(const Record& row) const {
    writer.transactions_.groupIs(row.entryHandle);
    writer.objects_.handles->groupIs(row.groupId, row.entryHandle);
  }
  void removed(const Record& row) const { writer.objects_.handles->groupDel(row.groupId); }
  [[nodiscard]] EntryHandle known(const Record& row) const {
    const P4Runtime::P4HandleMgr& handles = *writer.objects_.handles;
    return handles.groupHandleToEntryHandle(handles.getGroupHandleFromGroupId(row.groupId));
  }
  [[nodiscard]] static EntryHandle deleteHandle(const Record& /*row*/, std::uint32_t /*hash*/,
                                                EntryHandle /*handle*/) noexcept {
    return {};
  }

  RowWriter& writer;
};

const Ostra::OstraSm* RowWriter::machine(std::uint8_t table) const {
  if (library_ == nullptr) {
    return nullptr;
  }
  const auto found = library_->ostraSmColl().find(table);
  return found == library_->ostraSmColl().end() ? nullptr : found->second.get();
}

void RowWriter::prefetch(std::span<const Update> updates) const {
  std::array<const Ostra::OstraKey*, prefetchable> keys;
  std::size_t count = 0;
  std::uint8_t table = 0;
  for (const Update& update : updates) {
    if (update.kind() != Kind::flow_ || update.op() == Op::insert_ ||
        update.table() >= flowTables) {
      continue;
    }
    if (update.table() != table) {
      prefetchFlows(table, std::span{keys}.first(count));
      table = update.table();
      count = 0;
    }
    keys[count++] = &update.flow().flowKey;
  }
  prefetchFlows(table, std::span{keys}.first(count));
}

void RowWriter::prefetchFlows(std::uint8_t table,
                              std::span<const Ostra::OstraKey* const> keys) const {
  std::array<std::uint32_t, prefetchable> hashes;
  std::transform(keys.begin(), keys.end(), hashes.begin(),
                 [](const Ostra::OstraKey* key) { return key->hash(0); });
  const auto hashed = std::span{hashes}.first(keys.size());
  objects_.flowTable(table).table().prefetch(hashed);
  objects_.statusTable(table).table().prefetch(hashed);
  const Ostra::OstraSm* const its = machine(table);
  if (its == nullptr) {
    return;
  }
  its->prefetch(keys);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (const auto handle = its->flowKeyToEntryHandle({*keys[i], hashes[i]})) {
      transactions_.prefetch(EntryHandle{*handle});
    }
  }
}

void RowWriter::apply(const Update& update) {
  const Op op = update.op();
  Korm::assertTrue(op != Op::announce_, "an update inserts, modifies or deletes");
  switch (update.kind()) {
    case Kind::flow_:
      if (update.table() >= flowTables) {
        reject({.op = op}, "flow table " + std::to_string(update.table()) +
                               " does not exist: tables are 0 to " +
                               std::to_string(flowTables - 1));
      } else {
        write(FlowRows{*this, update.table()}, op, update.flow());
      }
      break;
    case Kind::member_:
      write(MemberRows{*this}, op, update.member());
      break;
    case Kind::group_:
      write(GroupRows{*this}, op, update.group());
      break;
  }
}

template <class Rows>
EntryHandle RowWriter::storedHandle(const Rows& rows, const typename Rows::Record& given,
                                    std::uint32_t hash) {
  try {
    const auto* const stored = rows.table().entry(given.key(), hash);
    return stored == nullptr ? EntryHandle{} : stored->entryHandle;
  } catch (const Vasta::Corruption& corruption) {
    objects_.faults.add(corruption.what());
    return rows.known(given);
  }
}

template <class Rows>
void RowWriter::write(const Rows& rows, Op op, const typename Rows::Record& given) {
  auto& table = rows.table();
  const std::uint32_t hash = table.table().hashOf(given.key());
  const EntryHandle stored = storedHandle(rows, given, hash);
  Result result{.op = op, .kind = Rows::kind, .id = Rows::id(given)};
  if (op == Op::insert_) {
    if (stored != 0) {
      reject(std::move(result),
             Rows::name(given) + " is already stored, under handle " + std::to_string(stored));
      return;
    }
    auto row = given;
    Rows::handleIs(row, transactions_.nextHandle());
    rows.stored(row);
    result.handle = row.entryHandle;
    transactions_.begin(result);
    perform(rows, row, [&] { table.table().is(row, hash); });
    return;
  }
  if (stored == 0) {
    reject(std::move(result), Rows::name(given) + " is not stored");
    return;
  }
  result.handle = stored;
  if (op == Op::modify_) {
    auto row = given;
    Rows::handleIs(row, stored);
    transactions_.begin(result);
    perform(rows, row, [&] { table.table().is(row, hash); });
    return;
  }
  transactions_.begin(result, rows.deleteHandle(given, hash, stored));
  perform(rows, given, [&] { table.table().del(given.key(), hash, nullptr); });
  rows.removed(given);  // last, because the library finds the handle to acknowledge by the id
}

void RowWriter::reject(Result result, std::string message) {
  result.state = State::rejected_;
  result.message = std::move(message);
  transactions_.reject(result);
}

template <class Rows, class Change>
void RowWriter::perform(const Rows& rows, const typename Rows::Record& row, Change change) {
  try {
    change();
  } catch (const Korm::RangeException& refused) {
    transactions_.endFailed(refused.what());
    return;
  } catch (const Vasta::Corruption& corruption) {
    objects_.faults.add(corruption.what());
    transactions_.endFailed(corruption.what());
    return;
  } catch (const std::system_error& full) {  // the table has not changed
    if (transactions_.endRejected(full.what())) {
      rows.removed(row);
    }
    return;
  }
  transactions_.end();
}

template <class Visit>
void RowWriter::forEachKind(Visit visit) {
  visit(MemberRows{*this});
  visit(GroupRows{*this});
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    visit(FlowRows{*this, index});
  }
}

std::size_t RowWriter::storedRows() {
  std::size_t count = 0;
  forEachKind([&count](const auto& rows) { count += rows.table().entries(); });
  return count;
}

void RowWriter::restore() {
  forEachKind([this](const auto& rows) {
    restoreRows(rows.table(), objects_.faults, [&](const auto& row) {
      rows.stored(row);
      transactions_.handleTaken(row.entryHandle);
    });
  });
}

void RowWriter::addAnnouncements() {
  forEachKind([this](const auto& rows) {
    using Rows = std::remove_cvref_t<decltype(rows)>;
    forEachIntactRow(rows.table(), objects_.faults, [this](const auto& row) {
      transactions_.addAnnouncement({.op = Op::announce_,
                                     .kind = Rows::kind,
                                     .handle = row.entryHandle,
                                     .id = Rows::id(row)});
    });
  });
}

bool RowWriter::damage(EntryHandle handle) {
  bool found = false;
  forEachKind([&](const auto& rows) {
    forEachRow(
        rows.table(),
        [&](const auto& row) {
          if (row.entryHandle == handle) {
            const_cast<EntryHandle&>(row.entryHandle) = EntryHandle{std::uint64_t{handle} ^ 1U};
            found = true;
          }
        },
        [](const Vasta::Corruption&) {});
  });
  return found;
}

void RowWriter::announce(bool groupsFirst) {
  forEachKind([this, groupsFirst](const auto& rows) {
    using Rows = std::remove_cvref_t<decltype(rows)>;
    auto& table = rows.table();
    if constexpr (Rows::kind == Kind::flow_) {
      if (groupsFirst && table.entries() > 0) {
        Korm::activity().run();
      }
    }
    forEachIntactRow(table, objects_.faults, [&](const typename Rows::Record& stored) {
      const typename Rows::Record row = stored;
      transactions_.replay(row.entryHandle);
      perform(rows, row, [&] { table.entryIs(row); });
    });
  });
}

}  // namespace Sim
