// Rows of action-profile members and groups against the Corvex groups.

#include <algorithm>

#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/private/AuditState.h"
#include "Ostra/private/GroupNumbering.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/Vasta/Errors.h"

namespace Ostra {
namespace {

using OpenFlowTable::Bucket;
using OpenFlowTable::GroupEntry;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupType;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::NexthopInfo;

constexpr const char* refusedBefore = "the row was refused";

class GroupAudit {
 public:
  GroupAudit(AuditState& state, const OstraEcmpGroupSm& machine)
      : state_{state}, machine_{machine}, inputs_{machine.inputs()} {}

  void run() {
    walk(inputs_.p4rtEcmpMemberTable, [this](const NexthopInfo& row) { auditMember(row); });
    walk(inputs_.p4rtEcmpGroupTable, [this](const EcmpMemberList& row) {
      const auto refusal = machine_.refusalOf(row);
      damagedList_ = damagedList_ || (refusal && refusal->damaged);
    });
    walk(inputs_.p4rtEcmpGroupTable, [this](const EcmpMemberList& row) { auditGroup(row); });
    const auto& groups = inputs_.cxHwConfig->groupEntries();
    state_.report.groups = groups.size();
    if (groups.size() == accounted_.size()) {
      return;
    }
    for (const auto& group : groups) {
      if (accounted_.find(group.key) == nullptr) {
        strayGroup(group.value);
      }
    }
  }

 private:
  struct Nothing {};

  template <class Table, class Visit>
  void walk(const Korm::Ptr<Table>& table, Visit visit) {
    Vasta::Hint hint;
    while (table) {
      try {
        const auto* const row = table->next(hint);
        if (row == nullptr) {
          return;
        }
        visit(*row);
      } catch (const Vasta::Corruption& corruption) {
        state_.fault(AuditKind::corruptRow_, "an ECMP table", "a row as it was written",
                     corruption.what(), "a stray write into the table's memory");
      }
    }
  }

  [[nodiscard]] const GroupEntry* find(GroupId id) {
    const GroupEntry* const group = std::as_const(*inputs_.cxHwConfig).groupEntry(id);
    if (group != nullptr) {
      accounted_.tryEmplace(id);
    }
    return group;
  }

  void auditMember(const NexthopInfo& row) {
    ++state_.report.rows;
    const std::string about = "member " + std::to_string(row.memberId);
    const MemberPreview preview = machine_.preview(row);
    const GroupEntry* const group = find(memberGroupId(row.memberId));
    if (group == nullptr) {
      state_.finding(AuditKind::rowWithoutGroup_, !preview.refusal, about,
                     corvexGroupName(memberGroupId(row.memberId)),
                     preview.refusal ? "refused: " + preview.refusal->message : "no such group",
                     preview.refusal ? refusedBefore : "somebody has deleted it");
    } else if (preview.refusal) {
      state_.expected(AuditKind::groupDiffers_, about, "the bucket that its row says now",
                      "the one it said before; refused: " + preview.refusal->message,
                      "the change was refused");
    } else if (group->groupType() != GroupType::indirect_ || group->buckets() != 1 ||
               !(group->bucket().front() == preview.bucket)) {
      const bool interfaceOnly = differsInInterfaceOnly(*group, preview.bucket);
      state_.finding(AuditKind::groupDiffers_, !interfaceOnly, about,
                     "the bucket that its row translates to now", "another one",
                     interfaceOnly ? "its port was mapped to another interface since"
                                   : "somebody else has written the group");
    }
  }

  [[nodiscard]] static bool differsInInterfaceOnly(const GroupEntry& group, Bucket bucket) {
    if (group.groupType() != GroupType::indirect_ || group.buckets() != 1) {
      return false;
    }
    bucket.actions.outputIntfIs(group.bucket().front().actions.outputIntf(), true);
    return group.bucket().front() == bucket;
  }

  void auditGroup(const EcmpMemberList& row) {
    ++state_.report.rows;
    const std::string about = "group " + std::to_string(row.groupId);
    const auto refusal = machine_.refusalOf(row);
    const GroupEntry* const group = find(ecmpGroupId(row.groupId));
    if (group == nullptr) {
      const bool excused = refusal || couldHaveBeenRefused(row);
      state_.finding(AuditKind::rowWithoutGroup_, !excused, about,
                     corvexGroupName(ecmpGroupId(row.groupId)),
                     refusal ? "refused: " + refusal->message : "no such group",
                     refusal   ? refusedBefore
                     : excused ? "the row was refused while a member was missing, or the group was "
                                 "deleted by somebody; write it again"
                               : "somebody has deleted it");
    } else if (refusal) {
      state_.expected(AuditKind::groupDiffers_, about, "the buckets of its members",
                      "those of before; refused: " + refusal->message,
                      "a group keeps its buckets when a member is deleted, and when it is refused");
    } else if (!hasBucketsOfMembers(row, *group)) {
      state_.finding(AuditKind::groupDiffers_, !damagedList_, about, "the buckets of its members",
                     "others",
                     damagedList_ ? "the list of another group is damaged, which stops the update"
                                  : "somebody else has written the group or a member's");
    }
  }

  [[nodiscard]] bool hasBucketsOfMembers(const EcmpMemberList& row, const GroupEntry& group) const {
    const auto members = row.memberIds();
    if (group.groupType() != GroupType::select_ || group.buckets() != members.size()) {
      return false;
    }
    for (std::size_t at = 0; at < members.size(); ++at) {
      const GroupEntry* const member =
          std::as_const(*inputs_.cxHwConfig).groupEntry(memberGroupId(members[at]));
      if (member == nullptr || member->buckets() != 1 ||
          !(member->bucket().front() == group.bucket()[at])) {
        return false;
      }
    }
    return true;
  }

  // A group that is refused for a missing member is not tried again when the member comes. When all
  // members were there before the row was stored, that is not what happened.
  [[nodiscard]] bool couldHaveBeenRefused(const EcmpMemberList& row) const {
    const auto stored = state_.inputs->telemetry
                            ? state_.inputs->telemetry->newest(
                                  row.entryHandle, P4Runtime::TelemetryTimestampType::stored_)
                            : std::nullopt;
    if (!stored) {
      return true;
    }
    const auto members = row.memberIds();
    return std::any_of(members.begin(), members.end(), [&](P4Runtime::MemberOrGroupId id) {
      const GroupEntry* const member =
          std::as_const(*inputs_.cxHwConfig).groupEntry(memberGroupId(id));
      return member == nullptr || member->changeCount() >= stored->time;
    });
  }

  void strayGroup(const GroupEntry& group) {
    // Nothing removes groups at start, so those of rows that were deleted before it stay.
    const bool older = group.changeCount() <= machine_.startedAt();
    state_.finding(AuditKind::groupWithoutRow_, !older, corvexGroupName(group.id()),
                   "no such Corvex group", "the group",
                   older ? "its row was deleted while the library was stopped"
                         : "somebody else has written it");
  }

  AuditState& state_;
  const OstraEcmpGroupSm& machine_;
  const OstraEcmpGroupSm::Inputs& inputs_;
  Korm::HashMap<GroupId, Nothing> accounted_;
  bool damagedList_ = false;
};

}  // namespace

void auditGroups(AuditState& state) {
  const auto& machine = state.context.ostraEcmpGroupSm();
  if (machine && machine->inputs().cxHwConfig) {
    GroupAudit{state, *machine}.run();
  }
}

}  // namespace Ostra
