// A controller's writes and their results.
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
  announce_,  // only in results: the service wrote the stored row again
};

enum class Kind : std::uint8_t { flow_, member_, group_ };

enum class State : std::uint8_t {
  done_,      // the result is in `code` and `message`
  pending_,   // the hardware has not answered yet; the result will be a report
  rejected_,  // the service refused the write and changed no table; `message` says why
  failed_,    // a range exception with the text `message` left the library; the row is stored
  stored_,    // the library is stopped, so the row was only stored
};

// The words of the command language and of the JSON output: "insert", "flow", "done" and so on.
[[nodiscard]] std::string_view text(Op op) noexcept;
[[nodiscard]] std::string_view text(Kind kind) noexcept;
[[nodiscard]] std::string_view text(State state) noexcept;

// One write. The service fills in the handles and entry ids of the rows. Only the key of a row that
// is to be deleted is used.
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
  // Requires: the update is of that kind, which is asserted.
  [[nodiscard]] const Ostra::OstraConfigEntry& flow() const;
  [[nodiscard]] const P4RuntimeRouting::NexthopInfo& member() const;
  [[nodiscard]] const P4RuntimeRouting::EcmpMemberList& group() const;

 private:
  // In the order of Kind. A group's row is shared because it is ten times larger than the others.
  using Row = std::variant<Ostra::OstraConfigEntry, P4RuntimeRouting::NexthopInfo,
                           std::shared_ptr<const P4RuntimeRouting::EcmpMemberList>>;
  Update(Op op, std::uint8_t table, Row row) : op_{op}, table_{table}, row_{std::move(row)} {}

  Op op_;
  std::uint8_t table_;
  Row row_;
};

// The result of one write.
struct Result {
  Op op = Op::insert_;
  Kind kind = Kind::flow_;
  State state = State::done_;
  P4Runtime::ErrorCode code = P4Runtime::ErrorCode::success_;  // if done_
  P4Runtime::EntryHandle handle{};                             // 0 if rejected_
  P4Runtime::MemberOrGroupId id = 0;                           // of a member or group
  std::string message{};                                       // may be empty

  [[nodiscard]] bool succeeded() const noexcept {
    return state == State::done_ && code == P4Runtime::ErrorCode::success_;
  }
};

// A result for an entry outside the current batch: of a pending write, or because the status in the
// hardware has changed. The handle is never 0.
struct Report {
  P4Runtime::EntryHandle handle;
  P4Runtime::ErrorCode code = P4Runtime::ErrorCode::success_;
  std::string message;

  friend bool operator==(const Report&, const Report&) = default;
};

}  // namespace Sim
