#include "sim/Writes.h"

#include "platform/Korm/Exceptions.h"

namespace Sim {
namespace {

template <class Row>
const Row& rowOf(const auto& rows) {
  const Row* const row = std::get_if<Row>(&rows);
  Korm::assertTrue(row != nullptr, "an update is asked for the row of its own kind");
  return *row;
}

}  // namespace

std::string_view text(Op op) noexcept {
  switch (op) {
    case Op::insert_:
      return "insert";
    case Op::modify_:
      return "modify";
    case Op::delete_:
      return "delete";
    case Op::announce_:
      return "announce";
  }
  return {};
}

std::string_view text(Kind kind) noexcept {
  switch (kind) {
    case Kind::flow_:
      return "flow";
    case Kind::member_:
      return "member";
    case Kind::group_:
      return "group";
  }
  return {};
}

std::string_view text(State state) noexcept {
  switch (state) {
    case State::done_:
      return "done";
    case State::pending_:
      return "pending";
    case State::rejected_:
      return "rejected";
    case State::failed_:
      return "failed";
    case State::stored_:
      return "stored";
  }
  return {};
}

const Ostra::OstraConfigEntry& Update::flow() const { return rowOf<Ostra::OstraConfigEntry>(row_); }

const P4RuntimeRouting::NexthopInfo& Update::member() const {
  return rowOf<P4RuntimeRouting::NexthopInfo>(row_);
}

const P4RuntimeRouting::EcmpMemberList& Update::group() const {
  return *rowOf<std::shared_ptr<const P4RuntimeRouting::EcmpMemberList>>(row_);
}

}  // namespace Sim
