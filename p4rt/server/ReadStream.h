// The answer to a Read: responses that are sent one after the other, as fast as the client takes
// them.
//
// Thread and process rule: add() and finish() on the loop's thread, the first not after the second.
// From finish() on gRPC's threads send by themselves, until all is sent.
// Ownership: a stream owns itself. It lives until `closed` has run, on the loop, after the RPC.
#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Loop.h"

namespace P4rt {

class ReadStream final : public grpc::ServerWriteReactor<p4::v1::ReadResponse> {
 public:
  // A client that takes nothing for that long is cut off.
  static constexpr std::chrono::seconds longestPause{20};

  ReadStream(Loop& loop, grpc::CallbackServerContext& context) : loop_{loop}, context_{context} {}

  // Clients accept messages of 4 MiB by default (P4Runtime 1.4.1, A.4.2): what is longer than that
  // is sent in parts, of an entity at least.
  static constexpr std::size_t mostBytes = std::size_t{3} << 20;

  void add(p4::v1::ReadResponse&& response);
  void finish(grpc::Status status, std::function<void()> closed);

  void OnWriteDone(bool good) override;
  void OnDone() override;

 private:
  void sendNext();
  void end();
  void watch();

  // Constant after construction.
  Loop& loop_;
  grpc::CallbackServerContext& context_;

  // The loop's thread until finish(), then that of the reaction under way, but for what is named.
  std::vector<p4::v1::ReadResponse> responses_;
  grpc::Status status_;
  std::atomic<std::size_t> sent_ = 0;  // any thread
  // The loop's thread.
  std::function<void()> closed_;
  bool finished_ = false;
  std::size_t sentBefore_ = 0;
  Timers::Id timer_ = 0;
};

}  // namespace P4rt
