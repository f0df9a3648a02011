// Converts the status of an RPC to gRPC's form.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>

#include "p4rt/RpcStatus.h"

namespace P4rt {

// The status with its details as a google.rpc.Status (P4Runtime 1.4.1, 12.3). The message and the
// details together have at most `mostBytes` bytes: clients accept 8 KiB of metadata by default, and
// a client that gets more closes its connection. If they are longer, the messages of the details
// are left out. If they are still too long, all details are left out, and the message says so.
[[nodiscard]] grpc::Status grpcStatus(const RpcStatus& status, std::size_t mostBytes);

}  // namespace P4rt
