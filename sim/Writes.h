// What a controller writes, and what it hears of its writes.
//
// Thread and process rule: plain values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "Ostra/OstraTypes.h"
#include "platform/P4Runtime/Types.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Sim {

enum class Op : std::uint8_t {
  insert_,
  modify_,
  delete_,
  announce_,  // of a result only: the service wrote the stored row again
};

enum class Kind : std::uint8_t { flow_, member_, group_ };

enum class State : std::uint8_t {
  done_,      // there is a result: `code` and `message`
  pending_,   // the hardware has not reported yet; its result comes as a report
  rejected_,  // the service itself refused the write, no table was touched; `message` says why
  failed_,    // a range exception left the library, whose text is `message`; the row is stored
  stored_,    // the library is stopped: the tables have changed and nobody has heard of it
};

// The words of the command language and of the JSON output: "insert", "flow", "done" and so on.
[[nodiscard]] std::string_view text(Op op) noexcept;
[[nodiscard]] std::string_view text(Kind kind) noexcept;
[[nodiscard]] std::string_view text(State state) noexcept;

// One write. Handles and entry ids in the rows are the service's to fill in; of a row to be deleted
// only the key counts.
class Update {
 public:
  // `table` is the flow table's index, 0 to 14.
  [[nodiscard]] static Update flow(Op op, std::uint8_t table,
                                   const Ostra::OstraConfigEntry& entry) {
    return {op, table, entry};
  }
  [[nodiscard]] static Update member(Op op, const P4RuntimeRouting::NexthopInfo& row) {
    return {op, 0, row};
  }
  [[nodiscard]] static Update group(Op op, const P4RuntimeRouting::EcmpMemberList& row) {
    return {op, 0, std::make_shared<const P4RuntimeRouting::EcmpMemberList>(row)};
  }

  [[nodiscard]] Op op() const noexcept { return op_; }
  [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(row_.index()); }
  [[nodiscard]] std::uint8_t table() const noexcept { return table_; }
  // The row of that kind; to ask for another kind's is an assertion.
  [[nodiscard]] const Ostra::OstraConfigEntry& flow() const;
  [[nodiscard]] const P4RuntimeRouting::NexthopInfo& member() const;
  [[nodiscard]] const P4RuntimeRouting::EcmpMemberList& group() const;

 private:
  // In the order of Kind. A group's row is ten times the size of the others, and shared.
  using Row = std::variant<Ostra::OstraConfigEntry, P4RuntimeRouting::NexthopInfo,
                           std::shared_ptr<const P4RuntimeRouting::EcmpMemberList>>;
  Update(Op op, std::uint8_t table, Row row) : op_{op}, table_{table}, row_{std::move(row)} {}

  Op op_;
  std::uint8_t table_;
  Row row_;
};

// What came of one write.
struct Result {
  Op op = Op::insert_;
  Kind kind = Kind::flow_;
  State state = State::done_;
  P4Runtime::ErrorCode code = P4Runtime::ErrorCode::success_;  // of a done_ one
  P4Runtime::EntryHandle handle{};                             // 0, none, of a rejected_ one
  P4Runtime::MemberOrGroupId id = 0;                           // of a member or group
  std::string message{};                                       // empty when there is nothing to say

  [[nodiscard]] bool succeeded() const noexcept {
    return state == State::done_ && code == P4Runtime::ErrorCode::success_;
  }
};

// A result that came for an entry outside the batch under way: of a write that had been left
// pending, or because the hardware's mind changed. Never for handle 0.
struct Report {
  P4Runtime::EntryHandle handle;
  P4Runtime::ErrorCode code = P4Runtime::ErrorCode::success_;
  std::string message;

  friend bool operator==(const Report&, const Report&) = default;
};

}  // namespace Sim
