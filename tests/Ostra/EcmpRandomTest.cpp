// Random changes of all inputs, compared with a model that knows only what should come of them.
#include <functional>
#include <map>
#include <optional>
#include <random>

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
      results_.push_back(std::to_string(memberHandle(id)) + " success");
    }
  }
  void groupIs(Id id, const Ids& list) {
    lists_[id] = list;
    updateGroup(id);
  }
  void groupDel(Id id) {
    if (lists_.erase(id) != 0) {
      groups_.erase(id);
      results_.push_back(std::to_string(groupHandle(id)) + " success");
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
  [[nodiscard]] Lines writes() { return std::exchange(writes_, {}); }
  [[nodiscard]] Lines results() { return std::exchange(results_, {}); }

 private:
  void refuse(P4Runtime::EntryHandle handle, const std::string& message) {
    results_.push_back(std::to_string(handle) + " invalidArgument: " + message);
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
    writes_.push_back("written member " + id);
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
      writes_.push_back("written group " + std::to_string(id));
    }
  }

  const MemberOrder memberOrder_;
  std::map<P4Runtime::P4PortId, std::string> ports_;
  std::map<Id, Member> members_;
  std::map<Id, Ids> lists_;
  std::map<NexthopGroup::EncapId, int> tunnels_;
  std::map<Id, NextHop> memberGroups_;
  std::map<Id, std::vector<NextHop>> groups_;
  Lines writes_;
  Lines results_;
};

class EcmpRandom : public Ecmp, public testing::WithParamInterface<unsigned> {
 protected:
  [[nodiscard]] std::uint32_t below(std::uint32_t limit) {
    return static_cast<std::uint32_t>(random_() % limit);
  }

  void change() {
    switch (below(8)) {
      case 0:
      case 1:
        return changeMember();
      case 2:
      case 3:
        return changeGroup();
      case 4:
        return changeEncap();
      case 5:
        return changePort();
      case 6: {
        const Id id = below(memberCount);
        members->entryDel(id);
        return model_.memberDel(id);
      }
      default:
        if (below(100) == 0) {
          start();
          return model_.restart();
        }
        const Id id = below(groupCount);
        groups->entryDel(id);
        model_.groupDel(id);
    }
  }

  void compare() {
    std::map<Id, NextHop> memberGroups;
    std::map<Id, std::vector<NextHop>> corvexGroups;
    for (const auto& [id, group] : cxHwConfig->groupEntries()) {
      for (const OpenFlowTable::Bucket& bucket : group.bucket()) {
        const NextHop nextHop = nextHopOf(bucket.actions);
        if (id < memberBase) {
          corvexGroups[static_cast<Id>(id)].push_back(nextHop);
        } else {
          memberGroups[static_cast<Id>(id - memberBase)] = nextHop;
        }
      }
    }
    ASSERT_TRUE(memberGroups == model_.memberGroups());
    ASSERT_TRUE(corvexGroups == model_.groups());
    Lines written = writes();
    std::erase_if(written, [](const std::string& line) { return !line.starts_with("written"); });
    ASSERT_THAT(written, testing::UnorderedElementsAreArray(model_.writes()));
    ASSERT_THAT(told(), testing::UnorderedElementsAreArray(model_.results()));
  }

 private:
  // Few of each, so that they meet.
  static constexpr std::uint32_t memberCount = 16;
  static constexpr std::uint32_t groupCount = 10;

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
                        .encap = static_cast<NexthopGroup::EncapId>(below(4)),
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
  void changeEncap() {
    const Encap encap{.id = static_cast<NexthopGroup::EncapId>(below(4)),
                      .lastOctet = static_cast<std::uint8_t>(below(4))};
    if (below(3) == 0) {
      encaps->entryDel(encap.id);
      return model_.encapDel(encap.id);
    }
    writeEncap(encap);
    model_.encapIs(encap);
  }
  void changePort() {
    const P4Runtime::P4PortId port = 1 + below(6);
    if (below(3) == 0) {
      ports->portDel(port);
      return model_.portDel(port);
    }
    const std::string intf = "Ethernet" + std::to_string(below(100));
    ports->portIs(port, Interface::IntfId{intf});
    model_.portIs(port, intf);
  }

  Model model_{[this] {
    Ids order;
    Vasta::Hint hint;
    while (const auto* const row = members->next(hint)) {
      order.push_back(row->memberId);
    }
    return order;
  }};
  std::mt19937 random_{GetParam()};
};

TEST_P(EcmpRandom, CorvexFollowsEveryChange) {
  for (const P4Runtime::P4PortId port : {1U, 2U, 3U}) {
    ports->portDel(port);
  }
  start();
  for (int step = 0; step < 10'000; ++step) {
    now += 1;
    change();
    compare();
    ASSERT_FALSE(HasFatalFailure()) << "at step " << step;
  }
  EXPECT_EQ(groups->table().verify(), std::nullopt);
  EXPECT_EQ(members->table().verify(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Seeds, EcmpRandom, testing::Values(1U, 2U));

}  // namespace
}  // namespace EcmpTest
