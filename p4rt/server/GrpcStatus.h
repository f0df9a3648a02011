// How an RPC ends, in gRPC's form.
//
// Thread and process rule: free functions without state.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>

#include "p4rt/RpcStatus.h"

namespace P4rt {

// With the details as a google.rpc.Status (P4Runtime 1.4.1, 12.3). They and the message take
// `mostBytes` at most: clients accept 8 KiB of metadata by default and end the connection at more,
// and their mastership with it. Where they would take more, the messages of the details are left
// out; where that is not enough, all details are, and the message says so.
[[nodiscard]] grpc::Status grpcStatus(const RpcStatus& status, std::size_t mostBytes);

}  // namespace P4rt
