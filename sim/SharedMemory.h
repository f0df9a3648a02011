// The named shared memory of a process: what another one reads the tables and the trace from.
//
// Thread and process rule: the activity thread. One at a time in a process, made before the service and
// destroyed after it.
#pragma once

#include <string>

namespace Sim {

class SharedMemory {
 public:
  // Throws what the table service and the trace throw when the memory cannot be had. Requires: the name has
  // no fault (SharedNames.h).
  explicit SharedMemory(const std::string& name);
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;
};

}  // namespace Sim
