// The audit: checks that the hardware has what the controller wanted, by comparing everything
// stored.
//
// Threads: the activity thread. An audit changes nothing and traces nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Ostra {

class OstraContext;

enum class AuditKind : std::uint8_t {
  corruptRow_,         // a row that cannot be read
  rowWithoutFlow_,     // refused, or lost
  flowWithoutRow_,     // a Corvex flow that no row accounts for
  flowDiffers_,        // a Corvex flow that is not what its row translates to now
  flowWithoutGroup_,   // a Corvex flow forwards to a group that is missing or not ready
  indexDiffers_,       // the index maps a key to another handle than its row's, or to none
  indexWithoutRow_,    // the index has a key without a row
  vrfDiffers_,         // a flow counts in another VRF than its row says
  vrfCount_,           // a VRF's count is not the number of flows in it
  vrfRecord_,          // a creator or deletor without a write in progress
  dependent_,          // an entry that a VRF waits for, without a write in progress
  rowWithoutGroup_,    // a member's or group's row without its Corvex group
  groupWithoutRow_,    // a Corvex group that no row accounts for
  groupDiffers_,       // a Corvex group that differs from what its row and its members translate to
  hardwareWithdrawn_,  // there is no hardware status at all
  hardwareLacks_,      // nothing is published for a flow or group that Corvex has
  hardwareHolds_,      // something is published for a flow or group that Corvex does not have
  hardwareFailed_,     // the hardware has refused a flow or group
  hardwareSilent_,     // the hardware has not answered for longer than the limit
};

// "row-without-flow"
[[nodiscard]] std::string_view auditKindText(AuditKind kind) noexcept;

struct AuditFinding {
  AuditKind kind{};
  bool fault = false;    // false for an intended consequence of an earlier write
  std::string about;     // "entry 7", "flow-7", "VRF 5", "group 3", "member 5"
  std::string expected;  // what should be there
  std::string found;     // what is there
  std::string cause;     // a possible reason
};

struct AuditOptions {
  // How many seconds the hardware may take to answer.
  double answerLimit = 5;
};

struct AuditReport {
  [[nodiscard]] std::size_t faults() const noexcept;

  std::vector<AuditFinding> findings;  // by kind
  std::size_t rows = 0;                // of all tables
  std::size_t flows = 0;               // in Corvex
  std::size_t groups = 0;              // in Corvex
  double seconds = 0;                  // that the audit took
};

// Compares rows, index, Corvex flows and groups, hardware status and VRF books of a context that is
// complete.
[[nodiscard]] AuditReport audit(const OstraContext& context, const AuditOptions& options = {});

}  // namespace Ostra
