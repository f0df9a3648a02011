// The stream of responses to a Read. They are sent one after the other, as fast as the client takes
// them.
//
// Threads: add() and finish() are called on the loop's thread. After finish(), gRPC's threads send
// the responses.
// Ownership: a stream owns itself. When the RPC has ended it calls `closed` on the loop's thread,
// and deletes itself.
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
  // A client that takes no response for this long is cut off, at twice this at the latest.
  static constexpr std::chrono::seconds longestPause{20};

  ReadStream(Loop& loop, grpc::CallbackServerContext& context) : loop_{loop}, context_{context} {}

  // The maximum size of a response. Clients accept messages of 4 MiB by default (P4Runtime 1.4.1,
  // A.4.2).
  static constexpr std::size_t mostBytes = std::size_t{3} << 20;

  // Adds a response. A larger one is split between entities; an entity is never split.
  // Requires: finish() has not been called.
  void add(p4::v1::ReadResponse&& response);
  // Sends the responses and ends the RPC with the status.
  // Requires: called once.
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

  // The loop's thread until finish(), then the thread of gRPC that calls back.
  std::vector<p4::v1::ReadResponse> responses_;
  grpc::Status status_;
  std::atomic<std::size_t> sent_ = 0;  // the number of responses; read by any thread
  // The loop's thread.
  std::function<void()> closed_;
  bool finished_ = false;
  std::size_t sentBefore_ = 0;
  Timers::Id timer_ = 0;
};

}  // namespace P4rt
