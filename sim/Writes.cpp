#include "sim/Writes.h"

#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Text.h"

namespace Sim {
namespace {

template <class Row>
const Row& rowOf(const auto& rows) {
  const Row* const row = std::get_if<Row>(&rows);
  Korm::assertTrue(row != nullptr, "an update is asked for the row of its own kind");
  return *row;
}

constexpr Korm::EnumTexts<Op, 4> ops{{
    {Op::insert_, "insert"},
    {Op::modify_, "modify"},
    {Op::delete_, "delete"},
    {Op::announce_, "announce"},
}};
constexpr Korm::EnumTexts<Kind, 3> kinds{{
    {Kind::flow_, "flow"},
    {Kind::member_, "member"},
    {Kind::group_, "group"},
}};
constexpr Korm::EnumTexts<State, 5> states{{
    {State::done_, "done"},
    {State::pending_, "pending"},
    {State::rejected_, "rejected"},
    {State::failed_, "failed"},
    {State::stored_, "stored"},
}};
static_assert(Korm::hasAllTexts(ops, Op::announce_) && Korm::hasAllTexts(kinds, Kind::group_) &&
              Korm::hasAllTexts(states, State::stored_));

}  // namespace

std::string_view text(Op op) noexcept { return Korm::enumText(ops, op); }
std::string_view text(Kind kind) noexcept { return Korm::enumText(kinds, kind); }
std::string_view text(State state) noexcept { return Korm::enumText(states, state); }

const Ostra::OstraConfigEntry& Update::flow() const { return rowOf<Ostra::OstraConfigEntry>(row_); }

const P4RuntimeRouting::NexthopInfo& Update::member() const {
  return rowOf<P4RuntimeRouting::NexthopInfo>(row_);
}

const P4RuntimeRouting::EcmpMemberList& Update::group() const {
  return *rowOf<std::shared_ptr<const P4RuntimeRouting::EcmpMemberList>>(row_);
}

}  // namespace Sim
