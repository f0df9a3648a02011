// Views of a stored flow entry, and of writes that wait for the hardware. Pointers in them are
// valid until the next change.
#pragma once

#include <cstdint>
#include <optional>

#include "Ostra/FlowPreview.h"
#include "Ostra/OstraTypes.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "sim/Writes.h"

namespace Sim {

// A flow entry from its row to its status in the hardware. Times are seconds since the epoch, 0
// when unknown.
struct StoredFlow {
  const Ostra::OstraConfigEntry* row = nullptr;  // never null
  std::uint8_t table = 0;
  double storedAt = 0;                                 // the time of the last write
  bool pending = false;                                // that write waits for the hardware
  const OpenFlowTable::FlowEntry* flow = nullptr;      // in Corvex, or null
  double configuredAt = 0;                             // handed to Corvex
  const OpenFlowTable::FlowStats* hardware = nullptr;  // what is published, or null
  double programmedAt = 0;                             // reported as programmed
  std::optional<Ostra::FlowPreview> preview{};         // writing it again now; none when stopped
};

// A flow entry's write that waits for the hardware.
struct PendingView {
  P4Runtime::EntryHandle handle;
  Op op = Op::insert_;
  std::uint8_t table = 0;
  double since = 0;                                   // seconds since the epoch
  const Ostra::OstraKey* key = nullptr;               // never null
  const Ostra::OstraConfigEntry* row = nullptr;       // null for a delete
  std::optional<OpenFlowTable::FlowStatus> status{};  // none when nothing is published
};

}  // namespace Sim
