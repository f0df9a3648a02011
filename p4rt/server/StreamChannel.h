// One controller's StreamChannel.
//
// gRPC's threads only post to the loop, and everything is done there: messages come to the owner
// one by one, the next one when the last has been dealt with; what is sent waits in a queue until
// the client takes it. A client that takes nothing is cut off.
//
// Thread and process rule: the loop's thread, but for the construction and for what gRPC calls.
// Ownership: a stream owns itself. It lives until the owner has been told closed(), and longer than
// the RPC.
#pragma once

#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <deque>
#include <optional>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Arbitration.h"
#include "p4rt/core/Loop.h"

namespace P4rt {

class StreamChannel final
    : public grpc::ServerBidiReactor<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse> {
 public:
  using Request = p4::v1::StreamMessageRequest;
  using Response = p4::v1::StreamMessageResponse;

  class Owner {
   public:
    virtual void received(StreamChannel& stream, const Request& message) = 0;
    // The client has gone or has no more to say. At most once.
    virtual void left(StreamChannel& stream) = 0;
    // Once, at the end of the stream's life.
    virtual void closed(StreamChannel& stream) = 0;

   protected:
    ~Owner() = default;
  };

  // How many messages may wait for a client.
  static constexpr std::size_t mostWaiting = 64;
  // How long a client may take to take the last ones when its stream has ended.
  static constexpr std::chrono::seconds longestEnd{10};

  // Both outlive the stream.
  StreamChannel(Loop& loop, Owner& owner, grpc::CallbackServerContext& context)
      : loop_{loop}, owner_{owner}, context_{context} {}

  // Begins to read.
  void start(StreamId id);
  [[nodiscard]] StreamId id() const noexcept { return id_; }

  void send(Response message);
  // Ends the stream, once what has been sent before is through. Nothing is received or sent after
  // that.
  void end(const grpc::Status& status);

  void OnReadDone(bool good) override;
  void OnWriteDone(bool good) override;
  void OnCancel() override;
  void OnDone() override;

 private:
  void readNext();
  void writeNext();
  void cancel();
  void handleLoss();

  // Constant after construction.
  Loop& loop_;
  Owner& owner_;
  grpc::CallbackServerContext& context_;

  // The loop's thread; the request while nothing is read, the first response while nothing is
  // written.
  StreamId id_ = 0;
  Request request_;
  std::deque<Response> outgoing_;
  bool reading_ = false;
  bool writing_ = false;
  bool cutOff_ = false;
  bool finished_ = false;
  std::optional<grpc::Status> ending_;
  Timers::Id endTimer_ = 0;
};

}  // namespace P4rt
