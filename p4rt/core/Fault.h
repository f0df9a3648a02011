// Why a part of a request is refused.
//
// Thread and process rule: plain values.
#pragma once

#include <string>
#include <utility>

#include "p4rt/RpcStatus.h"

namespace P4rt {

// What an update, a filter or a pipeline failed of. Thrown by whoever finds it, and caught where
// the answer to the request is put together.
struct Fault {
  Code code = Code::invalidArgument_;
  std::string message{};
  // The library's number, for what the library or the hardware has refused.
  std::int32_t ostraCode = 0;
};

// Throws: a Fault.
[[noreturn]] inline void refuse(Code code, std::string message) {
  throw Fault{.code = code, .message = std::move(message)};
}

}  // namespace P4rt
