#include "sim/SharedMemory.h"

#include "platform/Brisklog/Ring.h"
#include "platform/KormVasta/SharedMemory.h"
#include "sim/SharedNames.h"

namespace Sim {

SharedMemory::SharedMemory(const std::string& name) {
  KormVasta::sharedMemoryIs({.prefix = name, .takeOver = false});
  // Before the ring, whose coming tells readers to look: they shall not see what a dead process left.
  clearTables();
  // No trace has been written yet that the ring it replaces could hold.
  (void)Brisklog::ringIs(Brisklog::Ring::create({.shmName = traceSegment(name)}));
}

SharedMemory::~SharedMemory() { (void)Brisklog::ringIs(nullptr); }

}  // namespace Sim
