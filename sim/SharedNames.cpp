#include "sim/SharedNames.h"

#include "platform/KormVasta/SharedMemory.h"

namespace Sim {
namespace {

// The system allows 255 characters, and the paths of the tables need the rest.
constexpr std::size_t longestName = 128;
constexpr std::string_view allowed =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";

}  // namespace

std::string sharedNameFault(std::string_view name) {
  if (name.empty() || name.size() > longestName ||
      name.find_first_not_of(allowed) != std::string_view::npos) {
    return "expected 1 to " + std::to_string(longestName) + " letters, digits, '.', '_' or '-'";
  }
  return {};
}

std::string traceSegment(std::string_view name) { return KormVasta::segmentName(name, "trace"); }

}  // namespace Sim
