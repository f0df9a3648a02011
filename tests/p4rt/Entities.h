// Entities and updates, written as protobuf text.
#pragma once

#include <google/protobuf/text_format.h>

#include "p4/v1/p4runtime.pb.h"
#include "tests/Testing.h"

namespace P4rtTest {

using namespace TestSupport;
using p4::v1::Update;

// Ids of the shipped P4Info.
inline constexpr std::uint32_t l3AclId = 0x02000002;
inline constexpr std::uint32_t ecmpId = 0x02000003;

template <class Message>
Message parse(std::string_view text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(std::string{text}, &message)) << text;
  return message;
}

inline Update update(Update::Type type, std::string_view entity) {
  Update made;
  made.set_type(type);
  *made.mutable_entity() = parse<p4::v1::Entity>(entity);
  return made;
}
inline Update insert(std::string_view entity) { return update(Update::INSERT, entity); }
inline Update modify(std::string_view entity) { return update(Update::MODIFY, entity); }
inline Update remove(std::string_view entity) { return update(Update::DELETE, entity); }

// A byte in protobuf text.
inline std::string octal(int value) {
  return std::string{'\\'} + static_cast<char>('0' + value / 64) +
         static_cast<char>('0' + value / 8 % 8) + static_cast<char>('0' + value % 8);
}
// An entry that matches IPv4 packets to an address; `rest` is its action and what else it has.
inline std::string entryTo(const std::string& address, std::uint32_t table, int priority,
                           std::string_view rest) {
  return "table_entry { table_id: " + std::to_string(table) +
         " priority: " + std::to_string(priority) +
         " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
         " match { field_id: 8 ternary { value: '" +
         address + "' mask: '\\xff\\xff\\xff\\xff' } } " + std::string{rest} + " }";
}
// An entry of the ACL for the packets to 10.N.
inline std::string acl(int number, std::string_view rest = "", int priority = 10) {
  const std::string address =
      "\\x0a" + octal(number / 65536) + octal(number / 256 % 256) + octal(number % 256);
  return entryTo(address, 0x02000001, priority, rest);
}
// An entry of the ECMP table for the packets to 11.0.0.N.
inline std::string route(int number, const std::string& action) {
  return entryTo("\\x0b\\x00\\x00" + octal(number), ecmpId, 7, "action { " + action + " }");
}
inline std::string drop() { return "action { action { action_id: 0x01000002 } }"; }
inline std::string action(int id, const Texts& values) {
  std::string text = "action_id: " + std::to_string(0x01000000 + id);
  int param = 0;
  for (const std::string& value : values) {
    text += " params { param_id: " + std::to_string(++param) + " value: '" + value + "' }";
  }
  return text;
}
inline std::string does(int id, const Texts& values) {
  return "action { action { " + action(id, values) + " } }";
}
inline std::string forward(int port) { return does(3, {octal(port)}); }
// A next hop through port 1 and the given encapsulation.
inline std::string nexthop(int encap = 9, int port = 1) {
  return action(0x0e, {octal(port), octal(encap), "\\000", "\\000"});
}
inline std::string member(int id, const std::string& action = nexthop()) {
  return "action_profile_member { action_profile_id: 0x11000001 member_id: " + std::to_string(id) +
         " action { " + action + " } }";
}
inline std::string group(int id, const std::vector<std::pair<int, int>>& members, int size = 8) {
  std::string text =
      "action_profile_group { action_profile_id: 0x11000001 group_id: " + std::to_string(id) +
      " max_size: " + std::to_string(size);
  for (const auto& [memberId, weight] : members) {
    text += " members { member_id: " + std::to_string(memberId) +
            " weight: " + std::to_string(weight) + " }";
  }
  return text + " }";
}
inline std::string oneShot(const std::vector<std::pair<std::string, int>>& actions) {
  std::string text = "action_profile_action_set {";
  for (const auto& [does, weight] : actions) {
    text += " action_profile_actions { action { " + does + " } weight: " + std::to_string(weight) +
            " }";
  }
  return text + " }";
}

// The entity as it is shown when it is read back.
inline std::string shown(std::string_view entity) {
  return parse<p4::v1::Entity>(entity).ShortDebugString();
}

}  // namespace P4rtTest
