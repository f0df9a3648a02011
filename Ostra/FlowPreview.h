// What writing a flow entry now would do; see OstraSm::preview().
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Ostra/OstraTypes.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/Match.h"
#include "platform/P4Runtime/Types.h"

namespace Ostra {

// The steps of a write, in their order. Except for the three that are marked, they check a part of
// the entry and translate it.
enum class FlowStep : std::uint8_t {
  ports_,        // ingress and egress port of the match
  matchFields_,  // which fields may be combined, and the families of addresses
  matchValues_,  // values with limits
  actions_,      // the plain actions before the output action, with their limits
  outputPort_,
  vlan_,         // the VLAN to set
  bookVrf_,      // not a check: the flow is counted in its VRF
  moreActions_,  // the other plain actions
  group_,        // whether the group to forward to is ready
  mapKey_,       // not a check: the index maps the key to the entry handle
  priority_,
  write_,  // not a check: the Corvex flow is written
};

// What a write does to the counts of VRFs. A flow that moves from one VRF to another releases the
// first and takes the second.
struct VrfChange {
  using VrfId = Vrf::VrfIdMap::VrfId;

  std::optional<VrfId> released;
  std::optional<VrfId> taken;
  bool lastUser = false;   // whether the flow is the last user of the VRF that it releases
  bool firstUser = false;  // whether the flow is the first user of the VRF that it takes
};

// The Corvex group that a flow forwards to.
struct GroupNeed {
  enum class State : std::uint8_t { missing_, notReady_, ready_ };

  OpenFlowTable::GroupId id = 0;
  State state = State::missing_;
  std::optional<OpenFlowTable::GroupStatus> status;  // what the hardware says of it, if anything
};

// A Corvex flow, as far as an entry has been translated.
struct TranslatedFlow {
  FlowStep step = FlowStep::ports_;  // the current step
  OpenFlowTable::Match match;
  OpenFlowTable::Actions actions;
  std::int32_t priority = 0;
  OpenFlowTable::PriorityGroupType priorityGroupType = 0;
  OpenFlowTable::TableType tableType{};
};

// What a write would do. If it is refused, `step` is the step that refuses it. The steps before
// that one are done nevertheless.
struct FlowPreview : TranslatedFlow {
  enum class Outcome : std::uint8_t {
    inserts_,     // a new Corvex flow
    modifies_,    // replaces the contents of the Corvex flow
    refused_,     // an entry error: `code` and `message`
    outOfRange_,  // a range exception leaves the library: `message`
    nowhere_,     // there is no Corvex configuration to write to
  };

  [[nodiscard]] bool accepted() const noexcept {
    return outcome == Outcome::inserts_ || outcome == Outcome::modifies_;
  }

  Outcome outcome = Outcome::nowhere_;
  std::optional<P4Runtime::ErrorCode> code;  // nothing unless it is an EntryErrorException
  std::string message;
  // The match field for which the step matchFields_ refuses the entry, if it is a single one.
  std::optional<MatchFieldId> field;

  std::string name;  // of the Corvex flow
  std::uint32_t entryId = 0;
  // The Corvex flow of that name as it is now, or null. Valid until the configuration changes.
  const OpenFlowTable::FlowEntry* present = nullptr;

  // The index entries of the key before the write.
  std::optional<std::uint64_t> mappedHandle;
  std::optional<VrfChange::VrfId> countedVrf;
  // Whether the last write of the key was refused.
  bool refusedBefore = false;

  VrfChange vrf;                   // when bookVrf_ was reached
  std::optional<GroupNeed> group;  // when group_ was reached and there is one
};

}  // namespace Ostra
