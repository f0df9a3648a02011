// Entities and updates, written as protobuf text.
#pragma once

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "p4/v1/p4runtime.pb.h"

namespace P4rtTest {

// Ids of the shipped P4Info.
inline constexpr std::uint32_t l3AclId = 0x02000002;
inline constexpr std::uint32_t ecmpId = 0x02000003;

template <class Message>
Message parse(std::string_view text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(std::string{text}, &message)) << text;
  return message;
}

using p4::v1::Update;

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
// An entry of the ACL that matches IPv4 packets to 10.N; `rest` is its action and what else it has.
inline std::string acl(int number, std::string_view rest = "", int priority = 10) {
  return "table_entry { table_id: 0x02000001 priority: " + std::to_string(priority) +
         " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
         " match { field_id: 8 ternary { value: '\\x0a" +
         octal(number / 65536) + octal(number / 256 % 256) + octal(number % 256) +
         "' mask: '\\xff\\xff\\xff\\xff' } } " + std::string{rest} + " }";
}
inline std::string drop() { return "action { action { action_id: 0x01000002 } }"; }
inline std::string action(int id, std::initializer_list<std::string> values) {
  std::string text = "action_id: " + std::to_string(0x01000000 + id);
  int param = 0;
  for (const std::string& value : values) {
    text += " params { param_id: " + std::to_string(++param) + " value: '" + value + "' }";
  }
  return text;
}
inline std::string does(int id, std::initializer_list<std::string> values) {
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
// An entry of the ECMP table.
inline std::string route(int number, std::string_view action, int priority = 7) {
  return "table_entry { table_id: 0x02000003 priority: " + std::to_string(priority) +
         " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
         " match { field_id: 8 ternary { value: '\\x0b\\x00\\x00" +
         octal(number) + "' mask: '\\xff\\xff\\xff\\xff' } } action { " + std::string{action} +
         " } }";
}
inline std::string oneShot(const std::vector<std::pair<std::string, int>>& actions) {
  std::string text = "action_profile_action_set {";
  for (const auto& [does, weight] : actions) {
    text += " action_profile_actions { action { " + does + " } weight: " + std::to_string(weight) +
            " }";
  }
  return text + " }";
}

// Repeated fields in order of their text.
inline std::string text(p4::v1::Entity entity) {
  const auto sortBy = [](auto* repeated) {
    std::sort(repeated->begin(), repeated->end(), [](const auto& a, const auto& b) {
      return a.SerializeAsString() < b.SerializeAsString();
    });
  };
  if (entity.has_table_entry()) {
    p4::v1::TableEntry& entry = *entity.mutable_table_entry();
    sortBy(entry.mutable_match());
    if (entry.action().has_action_profile_action_set()) {
      sortBy(entry.mutable_action()
                 ->mutable_action_profile_action_set()
                 ->mutable_action_profile_actions());
    }
  }
  if (entity.has_action_profile_group()) {
    sortBy(entity.mutable_action_profile_group()->mutable_members());
  }
  return entity.ShortDebugString();
}
inline std::string shown(std::string_view entity) { return text(parse<p4::v1::Entity>(entity)); }

}  // namespace P4rtTest
