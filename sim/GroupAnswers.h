// The hardware's answers to writes of members and groups. The service reports such a write as done
// before the hardware has seen it; this class finds out what the hardware says later.
//
//   answers.expect(id, false);
//   service.apply(...);
//   if (const auto code = answers.answer(id)) ...   // otherwise notifiees() are told when it comes
//
// Threads: the activity thread.
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

  // Call before the Corvex group is written, or removed if `gone`. The answer is what the hardware
  // says of the group from now on.
  void expect(GroupId id, bool gone);
  // The answer as the result of the write; nothing while there is none.
  [[nodiscard]] std::optional<ErrorCode> answer(GroupId id);
  // Drops everything that is expected.
  void forget();

  // Notified of the answer for an id for which answer() has returned nothing.
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
