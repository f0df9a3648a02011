// The status with which an RPC ends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace P4rt {

// The canonical codes. The numbers are those of google.rpc.Code and of gRPC.
enum class Code : std::int32_t {
  ok_ = 0,
  cancelled_ = 1,
  unknown_ = 2,
  invalidArgument_ = 3,
  deadlineExceeded_ = 4,
  notFound_ = 5,
  alreadyExists_ = 6,
  permissionDenied_ = 7,
  resourceExhausted_ = 8,
  failedPrecondition_ = 9,
  aborted_ = 10,
  outOfRange_ = 11,
  unimplemented_ = 12,
  internal_ = 13,
  unavailable_ = 14,
};

struct RpcStatus {
  Code code = Code::ok_;
  std::string message{};
  // If an update of a Write or an entity of a Read failed: one error for each of them, in order.
  // Empty when none failed, and when the request failed as a whole.
  std::vector<p4::v1::Error> details{};

  [[nodiscard]] bool ok() const noexcept { return code == Code::ok_; }
};

}  // namespace P4rt
