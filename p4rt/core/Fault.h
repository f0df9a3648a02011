// Why a part of a request is refused.
#pragma once

#include <string>
#include <utility>

#include "p4rt/RpcStatus.h"

namespace P4rt {

// The reason why an update, a filter or a pipeline failed. It is thrown where it is found, and
// caught where the answer to the request is built.
struct Fault {
  Code code = Code::invalidArgument_;
  std::string message{};
  // The error code of the library, if the library or the hardware refused the update; otherwise 0.
  std::int32_t ostraCode = 0;
};

// Throws: Fault, always.
[[noreturn]] inline void refuse(Code code, std::string message) {
  throw Fault{.code = code, .message = std::move(message)};
}

}  // namespace P4rt
