#include "p4rt/server/RuntimeService.h"

#include <string>
#include <utility>

#include "p4rt/server/GrpcStatus.h"
#include "p4rt/server/StreamMessages.h"

namespace P4rt {
namespace {

constexpr const char* apiVersion = "1.4.1";

RpcStatus shuttingDown() { return {Code::unavailable_, "the server is shutting down"}; }

template <class Request>
std::optional<ElectionId> electionIdOf(const Request& request) {
  if (!request.has_election_id()) {
    return std::nullopt;
  }
  return ElectionId{request.election_id().high(), request.election_id().low()};
}

}  // namespace

RuntimeService::RuntimeService(Loop& loop, Engine& engine, Options options)
    : loop_{loop}, engine_{engine}, options_{options}, arbitration_{options.device} {}

// The methods that gRPC calls.

grpc::ServerUnaryReactor* RuntimeService::Write(grpc::CallbackServerContext* context,
                                                const p4::v1::WriteRequest* request,
                                                p4::v1::WriteResponse* /*response*/) {
  grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
  loop_.post([this, request, reactor] {
    changeAsPrimary(*request, *reactor,
                    [&](Engine::Done done) { engine_.write(*request, std::move(done)); });
  });
  return reactor;
}

grpc::ServerUnaryReactor* RuntimeService::SetForwardingPipelineConfig(
    grpc::CallbackServerContext* context, const p4::v1::SetForwardingPipelineConfigRequest* request,
    p4::v1::SetForwardingPipelineConfigResponse* /*response*/) {
  grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
  loop_.post([this, request, reactor] {
    changeAsPrimary(*request, *reactor,
                    [&](Engine::Done done) { engine_.setPipeline(*request, std::move(done)); });
  });
  return reactor;
}

grpc::ServerUnaryReactor* RuntimeService::GetForwardingPipelineConfig(
    grpc::CallbackServerContext* context, const p4::v1::GetForwardingPipelineConfigRequest* request,
    p4::v1::GetForwardingPipelineConfigResponse* response) {
  grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
  loop_.post([this, request, response, reactor] {
    const auto finish = [this, reactor](const RpcStatus& status) {
      reactor->Finish(grpcStatusOf(status));
    };
    if (const RpcStatus refusal = refusalOf(request->device_id()); !refusal.ok()) {
      finish(refusal);
    } else {
      engine_.getPipeline(*request, *response, finish);
    }
  });
  return reactor;
}

grpc::ServerWriteReactor<p4::v1::ReadResponse>* RuntimeService::Read(
    grpc::CallbackServerContext* context, const p4::v1::ReadRequest* request) {
  auto* const stream = new ReadStream{loop_, *context};
  loop_.post([this, request, stream] {
    waitingReads_.push_back({request, stream});
    readNext();
  });
  return stream;
}

grpc::ServerBidiReactor<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>*
RuntimeService::StreamChannel(grpc::CallbackServerContext* context) {
  auto* const stream = new Stream{loop_, *this, *context};
  loop_.post([this, stream] { opened(*stream); });
  return stream;
}

grpc::ServerUnaryReactor* RuntimeService::Capabilities(
    grpc::CallbackServerContext* context, const p4::v1::CapabilitiesRequest* /*request*/,
    p4::v1::CapabilitiesResponse* response) {
  response->set_p4runtime_api_version(apiVersion);
  grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
  reactor->Finish(grpc::Status::OK);
  return reactor;
}

// Requests.

template <class Request, class Change>
void RuntimeService::changeAsPrimary(const Request& request, grpc::ServerUnaryReactor& reactor,
                                     Change change) {
  const Role role{.name = request.role(), .id = request.role_id()};
  const RpcStatus refusal =
      shutDown_ ? shuttingDown()
                : arbitration_.check(request.device_id(), role, electionIdOf(request));
  if (!refusal.ok()) {
    reactor.Finish(grpcStatusOf(refusal));
    return;
  }
  arbitration_.writeBegins(role);
  change([this, role, &reactor](const RpcStatus& status) {
    reactor.Finish(grpcStatusOf(status));
    deliver(arbitration_.writeEnds(role));
  });
}

void RuntimeService::readNext() {
  while (!waitingReads_.empty() && readsUnderWay_ < mostReads) {
    const auto [request, stream] = waitingReads_.front();
    waitingReads_.pop_front();
    ++readsUnderWay_;
    read(*request, *stream);
  }
}

void RuntimeService::read(const p4::v1::ReadRequest& request, ReadStream& stream) {
  const auto finish = [this, &stream](const RpcStatus& status) {
    stream.finish(grpcStatusOf(status), [this] {
      --readsUnderWay_;
      readNext();
    });
  };
  if (const RpcStatus refusal = refusalOf(request.device_id()); !refusal.ok()) {
    finish(refusal);
    return;
  }
  engine_.read(
      request, [&stream](p4::v1::ReadResponse&& some) { stream.add(std::move(some)); }, finish);
}

RpcStatus RuntimeService::refusalOf(std::uint64_t device) const {
  return shutDown_ ? shuttingDown() : arbitration_.checkDevice(device);
}

grpc::Status RuntimeService::grpcStatusOf(const RpcStatus& status) const {
  return grpcStatus(status, options_.mostErrorDetails);
}

// Streams.

void RuntimeService::opened(Stream& stream) {
  streams_.emplace(++lastStream_, &stream);
  stream.start(lastStream_);
  if (shutDown_) {
    stream.end(grpcStatusOf(shuttingDown()));
  } else if (streams_.size() > mostOpenStreams) {
    stream.end(grpcStatusOf({Code::resourceExhausted_, "too many streams are open"}));
  }
}

void RuntimeService::received(Stream& stream, const Stream::Request& message) {
  if (!message.has_arbitration()) {
    stream.send(errorMessage(message, arbitration_.isPrimary(stream.id())));
    return;
  }
  const Arbitration::Outcome outcome =
      arbitration_.claim(stream.id(), claimOf(message.arbitration()));
  if (!outcome.refusal.ok()) {
    stream.end(grpcStatusOf(outcome.refusal));
  }
  deliver(outcome.notices);
}

void RuntimeService::left(Stream& stream) { deliver(arbitration_.gone(stream.id())); }

void RuntimeService::closed(Stream& stream) {
  streams_.erase(stream.id());
  deliver(arbitration_.gone(stream.id()));
}

void RuntimeService::deliver(const std::vector<Notice>& notices) {
  for (const Notice& notice : notices) {
    streams_.at(notice.to)->send(
        noticeMessage(notice, options_.device, arbitration_.role(notice.to)));
  }
}

void RuntimeService::shutDown(std::function<void()> done) {
  shutDown_ = true;
  engine_.shutDown([this, done = std::move(done)] {
    for (const auto& [id, stream] : streams_) {
      stream->end(grpcStatusOf(shuttingDown()));
    }
    done();
  });
}

}  // namespace P4rt
