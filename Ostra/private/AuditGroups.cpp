// Compares the rows of action-profile members and groups with the Corvex groups.

#include <vector>

#include "Ostra/GroupNumbering.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/private/AuditState.h"
#include "platform/Korm/HashSet.h"

namespace Ostra {
namespace {

using NexthopGroup::EncapEntry;
using OpenFlowTable::Bucket;
using OpenFlowTable::GroupEntry;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupType;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::NexthopInfo;

constexpr const char* refusedBefore = "the row was refused";
constexpr const char* memberBefore =
    "the row was refused while a member was missing; writing it again would succeed";
constexpr const char* damagedBefore = "a damaged row stops the updates of the rows behind it";

class GroupAudit {
 public:
  GroupAudit(AuditState& state, const OstraEcmpGroupSm& machine)
      : state_{state}, machine_{machine}, inputs_{machine.inputs()} {}

  void run() {
    state_.walk(
        inputs_.ipv4EncapTable, "encapsulation table", [](const EncapEntry&) {}, [] {});
    corruptMembers_ = walk(inputs_.p4rtEcmpMemberTable, "member table",
                           [this](const NexthopInfo& row) { auditMember(row); });
    corruptGroups_ = walk(inputs_.p4rtEcmpGroupTable, "group table",
                          [this](const EcmpMemberList& row) { auditGroup(row); });
    const auto& groups = inputs_.cxHwConfig->groupEntries();
    state_.report.groups = groups.size();
    if (groups.size() != accounted_.size()) {
      auditStrays();
    }
  }

 private:
  void auditStrays() {
    std::vector<const GroupEntry*> strays;
    for (const auto& group : inputs_.cxHwConfig->groupEntries()) {
      if (!accounted_.contains(group.key) && !isOfCorruptRow(group.key)) {
        strays.push_back(&group.value);
      }
    }
    for (const GroupEntry* const group : strays) {
      // The group may belong to a row whose id is damaged.
      std::size_t& corrupt = isMembers(group->id()) ? corruptMembers_ : corruptGroups_;
      if (corrupt > 0) {
        --corrupt;
      } else {
        strayGroup(*group);
      }
    }
  }

  // How the buckets of a group's members compare with its own.
  enum class Buckets : std::uint8_t {
    same_,
    kept_,  // of a member whose row was deleted
    differ_,
  };

  // Calls visit(row) for each intact row, and returns how many are corrupt.
  template <class Table, class Visit>
  std::size_t walk(const Korm::Ptr<Table>& table, const char* name, Visit visit) {
    std::size_t corrupt = 0;
    behindDamage_ = false;
    state_.walk(table, name, visit, [&] {
      ++corrupt;
      behindDamage_ = true;
    });
    return corrupt;
  }

  [[nodiscard]] static bool isMembers(GroupId group) {
    return group == memberGroupId(static_cast<P4Runtime::MemberOrGroupId>(group));
  }
  // Whether its row is there and corrupt.
  [[nodiscard]] bool isOfCorruptRow(GroupId group) {
    const auto id = static_cast<P4Runtime::MemberOrGroupId>(group);
    if (isMembers(group)
            ? AuditState::has(inputs_.p4rtEcmpMemberTable, id).has_value()
            : group != ecmpGroupId(id) || AuditState::has(inputs_.p4rtEcmpGroupTable, id)) {
      return false;
    }
    std::size_t& corrupt = isMembers(group) ? corruptMembers_ : corruptGroups_;
    corrupt -= corrupt > 0 ? 1 : 0;
    return true;
  }

  [[nodiscard]] const GroupEntry* present(GroupId id) const {
    return std::as_const(*inputs_.cxHwConfig).groupEntry(id);
  }
  [[nodiscard]] const GroupEntry* find(GroupId id) {
    const GroupEntry* const group = present(id);
    if (group != nullptr) {
      accounted_.insert(id);
    }
    return group;
  }

  void auditMember(const NexthopInfo& row) {
    ++state_.report.rows;
    const std::string about = "member " + std::to_string(row.memberId);
    const GroupId id = memberGroupId(row.memberId);
    const bool refused = machine_.refused(id);
    const MemberPreview preview = machine_.preview(row);
    const std::string refusal = preview.refusal ? "; refused: " + preview.refusal->message : "";
    const GroupEntry* const group = find(id);
    if (group == nullptr) {
      state_.finding(AuditKind::rowWithoutGroup_, !refused && !behindDamage_, about,
                     corvexGroupName(id), "no such group" + refusal,
                     refused         ? refusedBefore
                     : behindDamage_ ? damagedBefore
                                     : "somebody has deleted it");
      return;
    }
    if (preview.refusal && !AuditState::has(inputs_.ipv4EncapTable, row.encapId)) {
      return;  // the row cannot be read, so there is nothing to compare with
    }
    if (!preview.refusal && isIndirect(*group) && group->bucket().front() == preview.bucket) {
      return;
    }
    const bool interfaceOnly = !preview.refusal && differsInInterfaceOnly(*group, preview.bucket);
    state_.finding(AuditKind::groupDiffers_, !refused && !behindDamage_ && !interfaceOnly, about,
                   "the bucket that its row translates to now", "another one" + refusal,
                   refused         ? "the change was refused"
                   : interfaceOnly ? "its port was mapped to another interface since"
                   : behindDamage_ ? damagedBefore
                                   : "somebody else has written the group");
  }

  [[nodiscard]] static bool isIndirect(const GroupEntry& group) {
    return group.groupType() == GroupType::indirect_ && group.buckets() == 1;
  }
  [[nodiscard]] static bool differsInInterfaceOnly(const GroupEntry& group, Bucket bucket) {
    if (!isIndirect(group)) {
      return false;
    }
    bucket.actions.outputIntfIs(group.bucket().front().actions.outputIntf(), true);
    return group.bucket().front() == bucket;
  }

  void auditGroup(const EcmpMemberList& row) {
    ++state_.report.rows;
    const std::string about = "group " + std::to_string(row.groupId);
    const GroupId id = ecmpGroupId(row.groupId);
    const auto refusal = machine_.refusalOf(row);
    const bool damaged = refusal && refusal->damaged;
    // A write skips a list without members, and does not record it as refused.
    const bool refused = machine_.refused(id) || (!damaged && row.memberIds().empty());
    behindDamage_ = behindDamage_ || damaged;
    const bool excused = refused || behindDamage_;
    const std::string refusalText = refusal ? "; refused: " + refusal->message : "";
    const GroupEntry* const group = find(id);
    if (group == nullptr) {
      state_.finding(AuditKind::rowWithoutGroup_, !excused, about, corvexGroupName(id),
                     "no such group" + refusalText,
                     refused   ? refusal ? refusedBefore : memberBefore
                     : excused ? damagedBefore
                               : "somebody has deleted it");
      return;
    }
    const Buckets buckets = damaged ? Buckets::differ_ : compareBuckets(row, *group);
    if (refused) {
      state_.expected(AuditKind::groupDiffers_, about, "the buckets of its members",
                      "those of before" + refusalText, "the change was refused");
    } else if (buckets == Buckets::kept_) {
      state_.expected(AuditKind::groupDiffers_, about, "the buckets of its members",
                      "one whose member is gone", "a group keeps the bucket of a deleted member");
    } else if (buckets == Buckets::differ_) {
      state_.finding(AuditKind::groupDiffers_, !excused, about, "the buckets of its members",
                     "others" + refusalText,
                     excused ? damagedBefore : "somebody else has written the group or a member's");
    }
  }

  [[nodiscard]] Buckets compareBuckets(const EcmpMemberList& row, const GroupEntry& group) const {
    const auto members = row.memberIds();
    if (group.groupType() != GroupType::select_ || group.buckets() != members.size()) {
      return Buckets::differ_;
    }
    bool kept = false;
    for (std::size_t at = 0; at < members.size(); ++at) {
      kept = kept || AuditState::has(inputs_.p4rtEcmpMemberTable, members[at]) == false;
      // A missing member has a finding already, or the group keeps its bucket.
      const GroupEntry* const member = present(memberGroupId(members[at]));
      if (member != nullptr &&
          (member->buckets() != 1 || !(member->bucket().front() == group.bucket()[at]))) {
        return Buckets::differ_;
      }
    }
    return kept ? Buckets::kept_ : Buckets::same_;
  }

  void strayGroup(const GroupEntry& group) {
    // The start removes no groups, so those of rows that were deleted before it remain.
    const bool older = group.changeCount() <= machine_.startedAt();
    state_.finding(AuditKind::groupWithoutRow_, !older, corvexGroupName(group.id()),
                   "no such Corvex group", "the group",
                   older ? "its row was deleted while the library was stopped"
                         : "somebody else has written it");
  }

  AuditState& state_;
  const OstraEcmpGroupSm& machine_;
  const OstraEcmpGroupSm::Inputs& inputs_;
  Korm::HashSet<GroupId> accounted_;
  // Corrupt rows that no Corvex group was attributed to yet.
  std::size_t corruptMembers_ = 0;
  std::size_t corruptGroups_ = 0;
  // Set once a damaged row or list was met: the library stops there and does not update those
  // behind.
  bool behindDamage_ = false;
};

}  // namespace

void auditGroups(AuditState& state) {
  const auto& machine = state.context.ostraEcmpGroupSm();
  if (machine && machine->inputs().cxHwConfig) {
    GroupAudit{state, *machine}.run();
  }
}

}  // namespace Ostra
