// The actions of an entry that refer to something by number (a port, a VRF, a group and so on), in
// addition to its plain actions: one line each, with the word of the command language.
#pragma once

#include <string_view>

#include "Ostra/OstraTypes.h"

namespace Cli {

// A number of an entry and the flag that says whether it is given. The flag of the output port is
// the output action, which the entry's own functions set.
template <auto numberMember, auto givenMember>
struct EntryReference {
  std::string_view word;
  std::string_view syntax = "N";  // of the value, in the help

  static constexpr auto number = numberMember;
  [[nodiscard]] static bool given(const Ostra::OstraConfigEntry& entry) {
    return entry.*givenMember;
  }
  static void give(Ostra::OstraConfigEntry& entry) { entry.*givenMember = true; }
};

struct OutputReference {
  std::string_view word;
  std::string_view syntax = "PORT";

  static constexpr auto number = &Ostra::OstraConfigEntry::outputPort;
  [[nodiscard]] static bool given(const Ostra::OstraConfigEntry& entry) {
    return entry.outputGiven();
  }
  static void give(Ostra::OstraConfigEntry& entry) { entry.outputPortIs(entry.outputPort); }
};

// Calls visit(reference) for each.
template <class Visit>
constexpr void forEachReference(Visit visit) {
  using Entry = Ostra::OstraConfigEntry;
  visit(OutputReference{"output"});
  visit(EntryReference<&Entry::vrfId, &Entry::vrfGiven>{"vrf"});
  visit(EntryReference<&Entry::vlanId, &Entry::vlanGiven>{"vlan"});
  visit(EntryReference<&Entry::groupId, &Entry::groupGiven>{"group"});
  visit(EntryReference<&Entry::memberId, &Entry::memberGiven>{"member"});
}

}  // namespace Cli
