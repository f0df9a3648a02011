// The command line of ostra-sim.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/OptionWords.h"
#include "platform/Korm/Segment.h"
#include "sim/SharedMemory.h"

namespace Cli {

struct Options {
  bool json = false;
  bool stopped = false;
  bool keepGoing = false;
  bool audit = false;
  bool clockSteps = false;
  bool help = false;
  bool version = false;
  std::optional<int> traceLevel;
  bool verify = false;
  std::string shm;  // empty: no named shared memory
  Korm::SegmentRights rights;
  Sim::Leftover leftover = Sim::Leftover::refuse_;
  std::vector<std::string> files;  // "-" is standard input; never empty
};

// `arguments` are those after the program's name.
// Throws: UsageError.
[[nodiscard]] Options parseOptions(std::span<const char* const> arguments);

// What --help prints.
[[nodiscard]] std::string_view usage() noexcept;

}  // namespace Cli
