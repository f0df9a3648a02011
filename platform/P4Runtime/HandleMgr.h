// Maps the ids of action-profile members and groups to entry handles.
#pragma once

#include "platform/Korm/Entity.h"
#include "platform/Korm/HashMap.h"
#include "platform/P4Runtime/Types.h"

namespace P4Runtime {

// The service's handle of a group entry; 0 is none.
enum class GroupHandle : std::uint64_t { none_ = 0 };

// The service maps an id from its insert until its delete has been acknowledged. For the activity
// thread.
class P4HandleMgr final : public Korm::Entity {
 public:
  // none_, or 0, for an id that is not mapped.
  [[nodiscard]] GroupHandle getGroupHandleFromGroupId(MemberOrGroupId id) const noexcept {
    const auto* const found = groups_.find(id);
    return found == nullptr ? GroupHandle::none_ : found->value;
  }
  [[nodiscard]] static EntryHandle groupHandleToEntryHandle(GroupHandle handle) noexcept {
    return EntryHandle{static_cast<std::uint64_t>(handle)};
  }
  [[nodiscard]] EntryHandle getEntryHandleFromMemberId(MemberOrGroupId id) const noexcept {
    const auto* const found = members_.find(id);
    return found == nullptr ? EntryHandle{} : found->value;
  }

  void groupIs(MemberOrGroupId id, EntryHandle handle) {
    groups_.tryEmplace(id).first.value = GroupHandle{static_cast<std::uint64_t>(handle)};
  }
  void groupDel(MemberOrGroupId id) { groups_.erase(id); }
  void memberIs(MemberOrGroupId id, EntryHandle handle) {
    members_.tryEmplace(id).first.value = handle;
  }
  void memberDel(MemberOrGroupId id) { members_.erase(id); }

 private:
  Korm::HashMap<MemberOrGroupId, GroupHandle> groups_;
  Korm::HashMap<MemberOrGroupId, EntryHandle> members_;
};

}  // namespace P4Runtime
