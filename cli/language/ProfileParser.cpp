#include "cli/language/ProfileParser.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/language/ValueWords.h"

namespace Cli {
namespace {

using NexthopGroup::EncapEntry;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::NexthopInfo;

template <auto member>
constexpr auto putMac = [](NexthopInfo& info, std::string_view value, std::string_view name) {
  info.*member = P4RuntimeRouting::toLinkLayerWords(parseMac(value, name));
};

constexpr std::array memberWords{
    ValueWord<NexthopInfo>{"port", putNumber<&NexthopInfo::p4PortId>},
    ValueWord<NexthopInfo>{"encap", putNumber<&NexthopInfo::encapId>},
    ValueWord<NexthopInfo>{"dst-mac", putMac<&NexthopInfo::dstMac>},
    ValueWord<NexthopInfo>{"src-mac", putMac<&NexthopInfo::srcMac>},
};

struct GroupLists {
  std::vector<std::uint32_t> members;
  std::vector<std::uint32_t> weights;
};

template <auto list>
constexpr auto putNumbers = [](GroupLists& lists, std::string_view value, std::string_view name) {
  lists.*list = parseNumbers(value, name);
};

constexpr std::array groupWords{
    ValueWord<GroupLists>{"members", putNumbers<&GroupLists::members>},
    ValueWord<GroupLists>{"weights", putNumbers<&GroupLists::weights>},
};

template <auto member>
constexpr auto putIp4 = [](EncapEntry& entry, std::string_view value, std::string_view name) {
  entry.*member = parseIp(value, name, Korm::AddressFamily::ipv4_).ip4();
};

constexpr std::array encapWords{
    ValueWord<EncapEntry>{"src", putIp4<&EncapEntry::src>},
    ValueWord<EncapEntry>{"dst", putIp4<&EncapEntry::dst>},
    ValueWord<EncapEntry>{"ttl", putNumber<&EncapEntry::ttl>},
    ValueWord<EncapEntry>{"dscp", putNumber<&EncapEntry::dscp>},
    ValueWord<EncapEntry>{"type",
                          [](EncapEntry& entry, std::string_view value, std::string_view /*name*/) {
                            static constexpr std::array<std::string_view, 1> types{"ip-in-ip"};
                            if (value != types[0]) {
                              throwUnexpected("type=" + std::string{value}, "type=ip-in-ip",
                                              nearMatch(value, types));
                            }
                            entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
                          }},
};

template <class Id>
Id parseId(Words& words, std::string_view what) {
  const std::string id = "the id of " + std::string{what};
  return parseNumber<Id>(words.take(id), id);
}

}  // namespace

NexthopInfo parseMember(Words& words) {
  NexthopInfo member;
  member.memberId = parseId<P4Runtime::MemberOrGroupId>(words, "a member");
  applyWords(words, memberWords, 2, member);
  return member;
}

EcmpMemberList parseGroup(Words& words) {
  EcmpMemberList group;
  group.groupId = parseId<P4Runtime::MemberOrGroupId>(words, "a group");
  GroupLists lists;
  applyWords(words, groupWords, 1, lists);
  if (lists.members.size() > P4RuntimeRouting::maxMembers) {
    throw CommandError{"read " + std::to_string(lists.members.size()) +
                       " members, expected at most " +
                       std::to_string(P4RuntimeRouting::maxMembers)};
  }
  if (lists.weights.empty()) {
    lists.weights.assign(lists.members.size(), 1);
  }
  if (lists.weights.size() != lists.members.size()) {
    throw CommandError{"read " + std::to_string(lists.weights.size()) + " weights, expected " +
                       std::to_string(lists.members.size()) + ", one for each member"};
  }
  group.membersIs(lists.members, lists.weights);
  return group;
}

P4Runtime::MemberOrGroupId parseProfileId(Words& words, std::string_view what) {
  const auto id = parseId<P4Runtime::MemberOrGroupId>(words, what);
  words.end();
  return id;
}

EncapEntry parseEncap(Words& words) {
  EncapEntry entry;
  entry.encapId = parseId<NexthopGroup::EncapId>(words, "an encapsulation");
  entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
  applyWords(words, encapWords, 2, entry);
  return entry;
}

}  // namespace Cli
