// The service p4.v1.P4Runtime, which connects gRPC to the engine. It checks device, role and
// election id of the requests, and serves the streams of the controllers. The engine does the rest.
//
// Threads: gRPC's threads call the methods of the service, which post to the loop and return.
// Everything else, the end of the RPCs included, happens on the loop's thread. Only Capabilities is
// answered at once.
// Ownership: the loop and the engine outlive the service. The loop runs until gRPC's server has
// shut down.
#pragma once

#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "p4/v1/p4runtime.grpc.pb.h"
#include "p4rt/Engine.h"
#include "p4rt/core/Arbitration.h"
#include "p4rt/core/Loop.h"
#include "p4rt/server/ReadStream.h"
#include "p4rt/server/StreamChannel.h"

namespace P4rt {

class RuntimeService final : public p4::v1::P4Runtime::CallbackService,
                             private StreamChannel::Owner {
 public:
  static constexpr std::uint64_t defaultDevice = 1;
  // Leaves room for the other metadata within the 8 KiB that a client accepts by default.
  static constexpr std::size_t defaultErrorDetails = 7900;

  struct Options {
    std::uint64_t device = defaultDevice;
    // The maximum size of a status's message and details, in bytes.
    std::size_t mostErrorDetails = defaultErrorDetails;
  };

  // The maximum number of open streams, including those that have not sent an arbitration yet.
  static constexpr std::size_t mostOpenStreams = 1024;
  // The maximum number of Reads in progress. Further ones wait.
  static constexpr std::size_t mostReads = 16;

  RuntimeService(Loop& loop, Engine& engine, Options options);

  grpc::ServerUnaryReactor* Write(grpc::CallbackServerContext* context,
                                  const p4::v1::WriteRequest* request,
                                  p4::v1::WriteResponse* response) override;
  grpc::ServerWriteReactor<p4::v1::ReadResponse>* Read(grpc::CallbackServerContext* context,
                                                       const p4::v1::ReadRequest* request) override;
  grpc::ServerUnaryReactor* SetForwardingPipelineConfig(
      grpc::CallbackServerContext* context,
      const p4::v1::SetForwardingPipelineConfigRequest* request,
      p4::v1::SetForwardingPipelineConfigResponse* response) override;
  grpc::ServerUnaryReactor* GetForwardingPipelineConfig(
      grpc::CallbackServerContext* context,
      const p4::v1::GetForwardingPipelineConfigRequest* request,
      p4::v1::GetForwardingPipelineConfigResponse* response) override;
  grpc::ServerBidiReactor<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>*
  StreamChannel(grpc::CallbackServerContext* context) override;
  grpc::ServerUnaryReactor* Capabilities(grpc::CallbackServerContext* context,
                                         const p4::v1::CapabilitiesRequest* request,
                                         p4::v1::CapabilitiesResponse* response) override;

  // Lets the request in progress finish, answers all others with UNAVAILABLE, and ends the streams.
  // Then calls `done`.
  // Threads: the loop's thread.
  void shutDown(std::function<void()> done);

 private:
  using Stream = P4rt::StreamChannel;
  struct WaitingRead {
    const p4::v1::ReadRequest* request;
    ReadStream* stream;
  };

  // Not OK when the server is shutting down or this is not the device.
  [[nodiscard]] RpcStatus refusalOf(std::uint64_t device) const;
  // Calls change(done) if the request comes from a primary, and refuses it otherwise.
  template <class Request, class Change>
  void changeAsPrimary(const Request& request, grpc::ServerUnaryReactor& reactor, Change change);
  void read(const p4::v1::ReadRequest& request, ReadStream& stream);
  void readNext();

  void opened(Stream& stream);
  void received(Stream& stream, const Stream::Request& message) override;
  void left(Stream& stream) override;
  void closed(Stream& stream) override;
  void deliver(const std::vector<Notice>& notices);

  [[nodiscard]] grpc::Status grpcStatusOf(const RpcStatus& status) const;

  // Constant after construction.
  Loop& loop_;
  Engine& engine_;
  const Options options_;

  // The loop's thread.
  Arbitration arbitration_;
  std::map<StreamId, Stream*> streams_;
  StreamId lastStream_ = 0;
  std::deque<WaitingRead> waitingReads_;
  std::size_t readsUnderWay_ = 0;
  bool shutDown_ = false;
};

}  // namespace P4rt
