// What the hardware answers to writes of members and groups. The service counts such a write as
// done before the hardware has seen it, so whoever wants to know asks here.
//
//   answers.expect(id, false);
//   service.apply(...);
//   if (const auto code = answers.answer(id)) ...   // otherwise notifiees() are told when it comes
//
// Thread and process rule: the activity thread.
// Ownership: shares the status directory.
#pragma once

#include <memory>
#include <optional>

#include "platform/Korm/Dir.h"
#include "platform/Korm/HashMap.h"
#include "platform/Korm/Notification.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/Types.h"

namespace Sim {

class GroupAnswers {
 public:
  using GroupId = OpenFlowTable::GroupId;
  using ErrorCode = P4Runtime::ErrorCode;
  using Notifiees = Korm::NotifieeList<const GroupId&>;

  explicit GroupAnswers(Korm::Ptr<Korm::Dir> hwStatusDir);
  ~GroupAnswers();
  GroupAnswers(const GroupAnswers&) = delete;
  GroupAnswers& operator=(const GroupAnswers&) = delete;

  // The Corvex group is about to be written, or removed if `gone`: what the hardware says of it
  // from now on is the answer. What it said before is not.
  void expect(GroupId id, bool gone);
  // The answer to what was expected, as the result of the write; nothing as long as there is none.
  [[nodiscard]] std::optional<ErrorCode> answer(GroupId id);
  // Expects nothing any more.
  void forget();

  // Told of an id once its answer has come, if it was asked for in vain before.
  [[nodiscard]] Notifiees& notifiees() noexcept { return notifiees_; }

 private:
  struct Expected;

  void handleStatus(const Korm::Name& name);
  void handleGroup(const GroupId& id);
  void followStatus();
  void follow(Expected& expected) const;
  void look(Expected& expected);
  [[nodiscard]] std::optional<ErrorCode> verdict(const Expected& expected) const;
  [[nodiscard]] const OpenFlowTable::GroupStats* stats(GroupId id) const;

  const Korm::Ptr<Korm::Dir> hwStatusDir_;
  Korm::Ptr<const OpenFlowTable::HwStatus> status_;  // null while it is withdrawn
  Korm::HashMap<GroupId, std::unique_ptr<Expected>> expected_;
  Notifiees notifiees_;

  Korm::MemberNotifiee<GroupAnswers, &GroupAnswers::handleStatus, const Korm::Name&> dirNotifiee_;
  std::optional<Korm::MemberNotifiee<GroupAnswers, &GroupAnswers::handleGroup, const GroupId&>>
      groupNotifiee_;
};

}  // namespace Sim
