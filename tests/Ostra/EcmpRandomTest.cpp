// Random changes of all inputs, compared with a model that knows only what should come of them.
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "EcmpFixture.h"

namespace EcmpTest {
namespace {

// A next hop as a reader of Corvex sees it.
struct NextHop {
  std::string intf;
  int tunnel = 0;  // the last octet of both of its ends
  Korm::EthAddr dstMac;
  Korm::EthAddr srcMac;

  friend bool operator==(const NextHop&, const NextHop&) = default;
};

// Corvex as it should be, and what should have been written and reported on the way there.
class Model {
 public:
  // The ids of the member table in the order of its rows, in which members are processed.
  using MemberOrder = std::function<Ids()>;

  explicit Model(MemberOrder memberOrder) : memberOrder_{std::move(memberOrder)} {}

  void portIs(P4Runtime::P4PortId port, const std::string& intf) { ports_[port] = intf; }
  void portDel(P4Runtime::P4PortId port) { ports_.erase(port); }
  void memberIs(const Member& member) {
    members_[member.id] = member;
    updateMember(member);
  }
  void memberDel(Id id) {
    if (members_.erase(id) != 0) {
      memberGroups_.erase(id);
      results_.insert(std::to_string(memberHandle(id)) + " 0");
    }
  }
  void groupIs(Id id, const Ids& list) {
    lists_[id] = list;
    updateGroup(id);
  }
  void groupDel(Id id) {
    if (lists_.erase(id) != 0) {
      groups_.erase(id);
      results_.insert(std::to_string(groupHandle(id)) + " 0");
    }
  }
  void encapIs(const Encap& encap) {
    tunnels_[encap.id] = encap.lastOctet;
    updateUsers(encap.id);
  }
  void encapDel(NexthopGroup::EncapId id) {
    if (tunnels_.erase(id) != 0) {
      updateUsers(id);
    }
  }
  void restart() {
    for (const auto& [id, tunnel] : tunnels_) {
      updateUsers(id);
    }
    for (const Id id : memberOrder_()) {
      updateMember(members_.at(id));
    }
    for (const auto& [id, list] : lists_) {
      updateGroup(id);
    }
  }

  [[nodiscard]] const std::map<Id, NextHop>& memberGroups() const { return memberGroups_; }
  [[nodiscard]] const std::map<Id, std::vector<NextHop>>& groups() const { return groups_; }
  [[nodiscard]] std::multiset<std::string> writes() { return std::exchange(writes_, {}); }
  [[nodiscard]] std::multiset<std::string> results() { return std::exchange(results_, {}); }

 private:
  void refuse(P4Runtime::EntryHandle handle, const std::string& message) {
    results_.insert(std::to_string(handle) + " 15 " + message);
  }
  void updateUsers(NexthopGroup::EncapId id) {
    for (const Id member : memberOrder_()) {
      if (members_.at(member).encap == id) {
        updateMember(members_.at(member));
      }
    }
  }
  void updateMember(const Member& member) {
    const std::string id = std::to_string(member.id);
    if (member.port == 0) {
      return refuse(memberHandle(member.id),
                    "Action profile member " + id + ": port id 0 is outside 1 to 4294967039");
    }
    const auto tunnel = tunnels_.find(member.encap);
    if (tunnel == tunnels_.end()) {
      return refuse(
          memberHandle(member.id),
          "Action profile member: " + id + " has invalid encapId: " + std::to_string(member.encap));
    }
    memberGroups_[member.id] = {ports_[member.port], tunnel->second, member.dstMac, member.srcMac};
    writes_.insert("written member " + id);
    for (const auto& [groupId, list] : lists_) {
      if (groups_.contains(groupId) &&
          std::find(list.begin(), list.end(), member.id) != list.end()) {
        updateGroup(groupId);
      }
    }
  }
  void updateGroup(Id id) {
    std::vector<NextHop> buckets;
    for (const Id member : lists_[id]) {
      if (!memberGroups_.contains(member)) {
        return refuse(groupHandle(id), "Action profile group: " + std::to_string(id) + " member " +
                                           std::to_string(member) + " not found");
      }
      buckets.push_back(memberGroups_[member]);
    }
    if (!buckets.empty()) {
      groups_[id] = buckets;
      writes_.insert("written group " + std::to_string(id));
    }
  }

  const MemberOrder memberOrder_;
  std::map<P4Runtime::P4PortId, std::string> ports_;
  std::map<Id, Member> members_;
  std::map<Id, Ids> lists_;
  std::map<NexthopGroup::EncapId, int> tunnels_;
  std::map<Id, NextHop> memberGroups_;
  std::map<Id, std::vector<NextHop>> groups_;
  std::multiset<std::string> writes_;
  std::multiset<std::string> results_;
};

class EcmpRandom : public Ecmp, public testing::WithParamInterface<unsigned> {
 protected:
  [[nodiscard]] std::uint32_t below(std::uint32_t limit) {
    return static_cast<std::uint32_t>(random_() % limit);
  }

  void change() {
    switch (below(16)) {
      case 0:
      case 1:
      case 2:
      case 3:
        return changeMember();
      case 4:
      case 5: {
        const Id id = below(memberCount);
        members_->entryDel(id);
        return model_.memberDel(id);
      }
      case 6:
      case 7:
      case 8:
      case 9:
        return changeGroup();
      case 10: {
        const Id id = below(groupCount);
        groups_->entryDel(id);
        return model_.groupDel(id);
      }
      case 11:
      case 12: {
        const Encap encap{.id = encapId(), .lastOctet = static_cast<std::uint8_t>(below(4))};
        writeEncap(encap);
        return model_.encapIs(encap);
      }
      case 13: {
        const auto id = encapId();
        encaps_->entryDel(id);
        return model_.encapDel(id);
      }
      case 14:
        return changePort();
      default:
        if (below(50) == 0) {
          start();
          model_.restart();
        }
    }
  }

  [[nodiscard]] testing::AssertionResult agrees() {
    std::map<Id, NextHop> memberGroups;
    std::map<Id, std::vector<NextHop>> corvexGroups;
    for (const auto& [id, group] : cxHwConfig_->groupEntries()) {
      for (const OpenFlowTable::Bucket& bucket : group.bucket()) {
        const NextHop nextHop = nextHopOf(bucket.actions);
        if (id < memberBase) {
          corvexGroups[static_cast<Id>(id)].push_back(nextHop);
        } else {
          memberGroups[static_cast<Id>(id - memberBase)] = nextHop;
        }
      }
    }
    if (memberGroups != model_.memberGroups()) {
      return testing::AssertionFailure() << "other member groups";
    }
    if (corvexGroups != model_.groups()) {
      return testing::AssertionFailure() << "other groups";
    }
    std::multiset<std::string> written;
    for (const std::string& write : writes()) {
      if (write.starts_with("written")) {
        written.insert(write);
      }
    }
    if (written != model_.writes()) {
      return testing::AssertionFailure() << "other writes: " << testing::PrintToString(written);
    }
    const Lines reported = results();
    if (std::multiset(reported.begin(), reported.end()) != model_.results()) {
      return testing::AssertionFailure() << "other results: " << testing::PrintToString(reported);
    }
    return testing::AssertionSuccess();
  }

 private:
  // Few of each, so that they meet.
  static constexpr std::uint32_t memberCount = 16;
  static constexpr std::uint32_t groupCount = 10;

  [[nodiscard]] NexthopGroup::EncapId encapId() {
    return static_cast<NexthopGroup::EncapId>(below(4));
  }
  [[nodiscard]] Korm::EthAddr address() {
    return {{0, 0, 0, 0, static_cast<std::uint8_t>(below(2)), 0}};
  }
  [[nodiscard]] static NextHop nextHopOf(const OpenFlowTable::Actions& actions) {
    EXPECT_TRUE(actions.has(Action::outputIntf_) && actions.has(Action::encap_));
    EXPECT_EQ(actions.has(Action::dstMac_), !actions.dstMac().isZero());
    EXPECT_EQ(actions.has(Action::srcMac_), !actions.srcMac().isZero());
    EXPECT_EQ(actions.encap().src.octets[3], actions.encap().dst.octets[3]);
    return {std::string{actions.outputIntf().name()}, actions.encap().src.octets[3],
            actions.dstMac(), actions.srcMac()};
  }
  void changeMember() {
    const Member member{.id = below(memberCount),
                        .port = below(6),
                        .encap = encapId(),
                        .dstMac = address(),
                        .srcMac = address()};
    writeMember(member);
    model_.memberIs(member);
  }
  void changeGroup() {
    Ids list(below(6));
    std::generate(list.begin(), list.end(), [&] { return below(memberCount); });
    const Id id = below(groupCount);
    writeGroup(id, list);
    model_.groupIs(id, list);
  }
  void changePort() {
    const P4Runtime::P4PortId port = 1 + below(6);
    if (below(3) == 0) {
      ports_->portDel(port);
      return model_.portDel(port);
    }
    const std::string intf = "Ethernet" + std::to_string(below(100));
    ports_->portIs(port, Interface::IntfId{intf});
    model_.portIs(port, intf);
  }

  Model model_{[this] {
    Ids order;
    Vasta::Hint hint;
    while (const auto* const row = members_->next(hint)) {
      order.push_back(row->memberId);
    }
    return order;
  }};
  std::mt19937 random_{GetParam()};
};

TEST_P(EcmpRandom, CorvexFollowsEveryChange) {
  ports_->portDel(1);
  ports_->portDel(2);
  start();
  for (int step = 0; step < 10'000; ++step) {
    now += 1;
    change();
    ASSERT_TRUE(agrees()) << "step " << step;
  }
  EXPECT_EQ(groups_->table().verify(), std::nullopt);
  EXPECT_EQ(members_->table().verify(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Seeds, EcmpRandom, testing::Values(1U, 2U));

}  // namespace
}  // namespace EcmpTest
