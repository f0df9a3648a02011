#include "sim/GroupAnswers.h"

#include <utility>
#include <vector>

#include "sim/HwAgent.h"

namespace Sim {

using OpenFlowTable::GroupStats;
using OpenFlowTable::GroupStatus;

struct GroupAnswers::Expected {
  Expected(GroupAnswers& itsOwner, GroupId itsId, bool isGone)
      : owner{itsOwner}, id{itsId}, gone{isGone} {}
  void handle() { owner.look(*this); }

  using Reactor = Korm::MemberNotifiee<Expected, &Expected::handle>;

  GroupAnswers& owner;
  const GroupId id;
  const bool gone;
  std::optional<double> before{};  // the change count of what was published, if something was
  bool awaited = false;            // answer() has returned nothing
  std::optional<Reactor> status{};
  std::optional<Reactor> changeCount{};
};

GroupAnswers::GroupAnswers(Korm::Ptr<Korm::Dir> hwStatusDir)
    : hwStatusDir_{std::move(hwStatusDir)}, dirNotifiee_{*this, hwStatusDir_->notifiees()} {
  followStatus();
}

GroupAnswers::~GroupAnswers() = default;

void GroupAnswers::expect(GroupId id, bool gone) {
  expected_.erase(id);
  Expected& expected =
      *expected_.tryEmplace(id, std::make_unique<Expected>(*this, id, gone)).first.value;
  if (const GroupStats* const present = stats(id)) {
    expected.before = present->changeCount();
  }
}

std::optional<P4Runtime::ErrorCode> GroupAnswers::answer(GroupId id) {
  auto* const found = expected_.find(id);
  if (found == nullptr) {
    return std::nullopt;
  }
  Expected& expected = *found->value;
  const auto result = verdict(expected);
  if (!result && !expected.awaited) {
    expected.awaited = true;
    follow(expected);
  }
  return result;
}

void GroupAnswers::forget() { expected_.clear(); }

const GroupStats* GroupAnswers::stats(GroupId id) const {
  return status_ ? status_->groupStats(id) : nullptr;
}

std::optional<P4Runtime::ErrorCode> GroupAnswers::verdict(const Expected& expected) const {
  if (!status_) {
    return std::nullopt;
  }
  const GroupStats* const present = stats(expected.id);
  if (expected.gone || present == nullptr) {
    return expected.gone && present == nullptr ? std::optional{ErrorCode::success_} : std::nullopt;
  }
  if (expected.before == present->changeCount()) {
    return std::nullopt;
  }
  switch (present->status()) {
    case GroupStatus::ready_:
      return ErrorCode::success_;
    case GroupStatus::pending_:
      return std::nullopt;
    case GroupStatus::actionNotSupported_:
      return ErrorCode::actionNotSupported_;
    case GroupStatus::hardwareFull_:
      return ErrorCode::hardwareResourceExhausted_;
    default:
      return ErrorCode::hardwareError_;
  }
}

void GroupAnswers::followStatus() {
  groupNotifiee_.reset();
  status_ = hwStatusDir_->entityPtr<const OpenFlowTable::HwStatus>(Korm::Name{HwAgent::statusName});
  if (status_) {
    groupNotifiee_.emplace(*this, status_->groupStatsNotifiees());
  }
}

void GroupAnswers::follow(Expected& expected) const {
  expected.status.reset();
  expected.changeCount.reset();
  if (const GroupStats* const present = stats(expected.id)) {
    expected.status.emplace(expected, present->statusNotifiees());
    expected.changeCount.emplace(expected, present->changeCountNotifiees());
  }
}

void GroupAnswers::look(Expected& expected) {
  if (expected.awaited && verdict(expected)) {
    expected.awaited = false;
    notifiees_.notify(expected.id);
  }
}

void GroupAnswers::handleStatus(const Korm::Name& name) {
  if (name != HwAgent::statusName) {
    return;
  }
  followStatus();
  for (auto& entry : expected_) {
    handleGroup(entry.key);
  }
}

void GroupAnswers::handleGroup(const GroupId& id) {
  auto* const found = expected_.find(id);
  if (found == nullptr) {
    return;
  }
  Expected& expected = *found->value;
  if (status_ && stats(id) == nullptr) {
    expected.before.reset();  // the change count of new statistics starts at 0
  }
  if (expected.awaited) {
    follow(expected);
    look(expected);
  }
}

}  // namespace Sim
