#include "Ostra/FlowUtil.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "Ostra/Trace.h"
#include "platform/Korm/Exceptions.h"

namespace Ostra {
namespace {

constinit Brisklog::TracePoint traceInvalidName{traceHandle,
                                                TraceLevel::failure,
                                                "Ostra::",
                                                "flowIdFromName",
                                                " Invalid flow Name: %s",
                                                "Ostra/FlowUtil",
                                                19};

}  // namespace

FlowName::FlowName(std::uint64_t identifier, std::string_view suffix) noexcept {
  char* const digits = std::copy(flowNamePrefix.begin(), flowNamePrefix.end(), text_.data());
  char* const end = std::to_chars(digits, text_.data() + text_.size(), identifier).ptr;
  Korm::assertTrue(suffix.size() <= longestSuffix, "a flow name's suffix is short");
  length_ = static_cast<std::size_t>(std::copy(suffix.begin(), suffix.end(), end) - text_.data());
}

Korm::String buildFlowName(std::uint64_t identifier) {
  return Korm::String{FlowName{identifier}.text()};
}

std::uint64_t flowIdFromName(const Korm::String& name) {
  // The usual name has digits directly behind the prefix, and needs no sscanf. Overflow, blanks and
  // signs are left to sscanf, whose rules are the grammar.
  if (name.starts_with(flowNamePrefix)) {
    std::uint64_t identifier = 0;
    const auto [end, error] =
        std::from_chars(name.data() + flowNamePrefix.size(), name.data() + name.size(), identifier);
    if (error == std::errc{}) {
      return identifier;
    }
  }
  unsigned long identifier = 0;
  if (std::sscanf(name.c_str(), "flow-%lu", &identifier) > 0) {
    return identifier;
  }
  traceInvalidName(name);
  return 0;
}

}  // namespace Ostra
