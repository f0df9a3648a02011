// The service p4.v1.P4Runtime: what stands between gRPC and the engine. It knows devices, roles and
// controllers; what the requests say of the pipeline and its entries is the engine's.
//
// gRPC's threads call the methods of the service, which post to the loop and return. Everything
// else is done on the loop's thread, which also finishes the RPCs.
//
// Ownership: loop and engine outlive the service, and the loop runs until gRPC's server has shut
// down.
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
  // With the rest of the metadata within the 8 KiB that a client accepts.
  static constexpr std::size_t defaultErrorDetails = 7900;

  struct Options {
    std::uint64_t device = defaultDevice;
    // How many bytes the details of a status may take.
    std::size_t mostErrorDetails = defaultErrorDetails;
  };

  // Streams that have not claimed anything yet included.
  static constexpr std::size_t mostOpenStreams = 1024;
  // How many Reads are answered at a time; others wait.
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

  // The loop's thread. Lets the request under way finish, answers everything else from now on with
  // UNAVAILABLE, and ends the streams; then calls `done`.
  void shutDown(std::function<void()> done);

 private:
  using Stream = P4rt::StreamChannel;
  struct WaitingRead {
    const p4::v1::ReadRequest* request;
    ReadStream* stream;
  };

  // Why a request is not served, as far as the device goes.
  [[nodiscard]] RpcStatus refusalOf(std::uint64_t device) const;
  // Makes a change that a primary asks for, and nobody else may: change(done).
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
