// The command line of ostra-sim.
//
// Thread and process rule: free functions without state.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Cli {

// A command line that makes no sense. what() says what was read and what was expected.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  bool json = false;
  bool stopped = false;
  bool keepGoing = false;
  bool clockSteps = false;
  bool help = false;
  bool version = false;
  std::optional<int> traceLevel;
  std::string shm;                 // empty: no named shared memory
  std::vector<std::string> files;  // "-" is standard input; never empty
};

// `arguments` are those behind the program's name. Throws UsageError.
[[nodiscard]] Options parseOptions(std::span<const char* const> arguments);

// What --help prints.
[[nodiscard]] std::string_view usage() noexcept;

}  // namespace Cli
