// The StreamChannel of one controller.
//
// Received messages are passed to the owner one by one. Sent messages wait in a queue until the
// client takes them; a client that takes too few is cut off.
//
// Threads: the loop's thread, except for the constructor and the callbacks from gRPC, which only
// post to the loop.
// Ownership: a stream owns itself. After the RPC has ended it calls closed() and deletes itself.
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
    // The client has disconnected or closed its side. Called at most once.
    virtual void left(StreamChannel& stream) = 0;
    // The stream is about to be deleted. Called once.
    virtual void closed(StreamChannel& stream) = 0;

   protected:
    ~Owner() = default;
  };

  // The maximum number of messages that wait for the client. The next one cuts it off.
  static constexpr std::size_t mostWaiting = 64;
  // How long a client may take to receive the last messages when its stream is ended.
  static constexpr std::chrono::seconds longestEnd{10};

  // The loop and the owner outlive the stream.
  StreamChannel(Loop& loop, Owner& owner, grpc::CallbackServerContext& context)
      : loop_{loop}, owner_{owner}, context_{context} {}

  // Starts to read messages.
  void start(StreamId id);
  [[nodiscard]] StreamId id() const noexcept { return id_; }

  void send(Response message);
  // Ends the stream with the status after the messages in the queue. From now on no message is
  // received, and none is added to the queue.
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

  // The loop's thread, except that gRPC uses the request while it reads, and the first response
  // while it writes.
  StreamId id_ = 0;
  Request request_;
  std::deque<Response> outgoing_;
  bool reading_ = false;
  bool writing_ = false;
  bool cutOff_ = false;
  bool finished_ = false;  // Finish() has been called
  std::optional<grpc::Status> ending_;
  Timers::Id endTimer_ = 0;
};

}  // namespace P4rt
