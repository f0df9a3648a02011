#include "Ostra/FlowUtil.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "Ostra/Trace.h"

namespace Ostra {
namespace {

constexpr std::string_view prefix = "flow-";

constinit Brisklog::TracePoint invalidName{traceHandle,
                                           TraceLevel::failure,
                                           "Ostra::",
                                           "flowIdFromName",
                                           " Invalid flow Name: %s",
                                           "Ostra/FlowUtil",
                                           19};

}  // namespace

Korm::String buildFlowName(std::uint64_t identifier) {
  std::array<char, prefix.size() + 20> name;  // 20 digits hold any 64-bit number
  const auto digits = std::copy(prefix.begin(), prefix.end(), name.begin());
  const auto end = std::to_chars(digits, name.data() + name.size(), identifier).ptr;
  return {name.data(), end};
}

std::uint64_t flowIdFromName(const Korm::String& name) {
  // The common name, digits right behind the prefix, without the cost of a scan. Overflow, blanks and
  // signs are left to the scan, whose rules are the grammar.
  if (name.starts_with(prefix)) {
    std::uint64_t identifier = 0;
    const auto [end, error] =
        std::from_chars(name.data() + prefix.size(), name.data() + name.size(), identifier);
    if (error == std::errc{}) {
      return identifier;
    }
  }
  unsigned long identifier = 0;
  if (std::sscanf(name.c_str(), "flow-%lu", &identifier) > 0) {
    return identifier;
  }
  invalidName(name);
  return 0;
}

}  // namespace Ostra
