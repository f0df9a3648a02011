// A service with its ECMP tables, the Corvex configuration, and an ECMP state machine between them.
//
// What happens is kept as lines, in order: writes() of Corvex groups ("created member 5", "written
// group 3", "deleted group 3") and corruptions() reported to the tables. Each call takes the lines
// since the last one.
#pragma once

#include "Ostra/OstraEcmpGroupSm.h"
#include "ServiceFixture.h"

namespace OstraTest {

inline std::string groupName(GroupId id) {
  return id >= memberBase ? "member " + std::to_string(id - memberBase)
                          : "group " + std::to_string(id);
}

class Ecmp : public ServiceFixture {
 protected:
  Ecmp() {
    groups->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("groups"); });
    members->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("members"); });
    encaps->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("encaps"); });
  }

  // Makes a state machine on the tables, as the context does. `change` gives it other inputs.
  void start(const std::function<void(Ostra::OstraEcmpGroupSm::Inputs&)>& change = [](auto&) {}) {
    Ostra::OstraEcmpGroupSm::Inputs inputs{cxHwConfig, groups,     members,     encaps,
                                           ports,      validation, batchStatus, handles};
    change(inputs);
    sm = Ostra::ostraEcmpGroupSmFactory(inputs);
  }

  // Changes a row behind the back of its table, as stray writes to shared memory do.
  template <class Table>
  static void corrupt(const Korm::Ptr<Table>& table, const typename Table::Key& key) {
    const typename Table::Record* const row = table->entry(key);
    std::size_t size = sizeof(*row);
    if constexpr (requires { row->usedSize(); }) {
      size = row->usedSize();
    }
    const_cast<std::byte*>(reinterpret_cast<const std::byte*>(row))[size - 1] ^= std::byte{0xFF};
  }

  [[nodiscard]] const OpenFlowTable::GroupEntry* corvexGroup(Id id) const {
    return std::as_const(*cxHwConfig).groupEntry(id);
  }
  [[nodiscard]] const OpenFlowTable::GroupEntry* corvexMember(Id id) const {
    return std::as_const(*cxHwConfig).groupEntry(memberBase + id);
  }
  // The actions of a member's only bucket.
  [[nodiscard]] const OpenFlowTable::Actions& memberActions(Id id) const {
    return corvexMember(id)->bucket().at(0).actions;
  }
  // Whether a group holds, in this order, what the members' buckets are now.
  [[nodiscard]] testing::AssertionResult groupCopies(Id id, const Ids& list) const {
    const auto* const group = corvexGroup(id);
    if (group == nullptr || group->groupType() != GroupType::select_) {
      return testing::AssertionFailure() << "no select group " << id;
    }
    std::vector<OpenFlowTable::Bucket> wanted;
    for (const Id member : list) {
      wanted.push_back(corvexMember(member)->bucket().at(0));
    }
    return group->bucket() == wanted
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "other buckets in group " << id;
  }

  [[nodiscard]] Texts writes() { return std::exchange(writes_, {}); }
  [[nodiscard]] Texts told() { return results.takeEach(); }
  [[nodiscard]] Texts corruptions() { return std::exchange(corruptions_, {}); }
  void forgetWhatHappened() {
    writes_.clear();
    results.takeEach();
  }

 public:
  Korm::Ptr<Ostra::OstraEcmpGroupSm> sm;

 private:
  // Also checks that a group is whole by the time its change is announced.
  void corvexGroupChanged(const GroupId& id) {
    const auto* const group = std::as_const(*cxHwConfig).groupEntry(id);
    if (group == nullptr) {
      writes_.push_back("deleted " + groupName(id));
    } else if (group->changeCount() == 0) {
      EXPECT_EQ(group->buckets(), 0U);
      writes_.push_back("created " + groupName(id));
    } else {
      EXPECT_EQ(group->changeCount(), now);
      EXPECT_EQ(group->groupType(), id < memberBase ? GroupType::select_ : GroupType::indirect_);
      EXPECT_TRUE(id < memberBase ? group->buckets() > 0 : group->buckets() == 1);
      EXPECT_TRUE(group->ready());
      EXPECT_FALSE(group->deleted());
      writes_.push_back("written " + groupName(id));
    }
  }

  Texts writes_;
  Texts corruptions_;
  Korm::MemberNotifiee<Ecmp, &Ecmp::corvexGroupChanged, const GroupId&> corvexReactor_{
      *this, cxHwConfig->groupEntryNotifiees()};
};

}  // namespace OstraTest
