#include "p4rt/server/Server.h"

#include <chrono>
#include <utility>

namespace P4rt {
namespace {

// How long clients may take to receive their last answers at a shutdown.
constexpr std::chrono::seconds longestGoodbye{3};
// A client that has been silent for the first time is pinged, and may take the second time to
// answer: a primary whose machine is gone must not stay the primary.
constexpr int keepaliveMs = 20'000;
constexpr int keepaliveTimeoutMs = 10'000;
// The shortest interval between the pings of a client.
constexpr int shortestPingIntervalMs = 1'000;
// The maximum number of RPCs in progress on a connection. Further ones wait in the client.
constexpr int mostConcurrentRpcs = 256;

std::shared_ptr<grpc::ServerCredentials> credentials(const std::optional<TlsFiles>& tls) {
  if (!tls) {
    return grpc::InsecureServerCredentials();
  }
  grpc::SslServerCredentialsOptions options{
      tls->clientRoots.empty() ? GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE
                               : GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY};
  options.pem_root_certs = tls->clientRoots;
  options.pem_key_cert_pairs.push_back({tls->key, tls->certificate});
  return grpc::SslServerCredentials(options);
}

void argumentsAre(grpc::ServerBuilder& builder) {
  builder.SetMaxReceiveMessageSize(Server::longestMessage);
  builder.SetMaxSendMessageSize(-1);
  // Otherwise two servers could share the port, and each would get some of the connections.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, mostConcurrentRpcs);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, keepaliveMs);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, keepaliveTimeoutMs);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS,
                             shortestPingIntervalMs);
}

}  // namespace

Server::Server(Loop& loop, Engine& engine, const ServerOptions& options)
    : loop_{loop}, service_{loop, engine, options.service} {
  const std::string where = "cannot listen on " + options.address.text() + ": ";
  if (const std::string fault = options.address.fault(); !fault.empty()) {
    throw std::runtime_error{where + fault};
  }
  grpc::ServerBuilder builder;
  argumentsAre(builder);
  builder.AddListeningPort(options.address.text(), credentials(options.tls), &port_);
  builder.RegisterService(&service_);
  server_ = builder.BuildAndStart();
  if (server_ == nullptr || port_ == 0) {
    throw std::runtime_error{where + (options.tls ? "the certificate and the key are not usable"
                                                  : "gRPC could not have the port")};
  }
}

Server::~Server() {
  if (ending_.joinable()) {
    ending_.join();
  }
}

void Server::shutDown(std::function<void()> done) {
  if (std::exchange(shutDown_, true)) {
    return;
  }
  service_.shutDown([this, done = std::move(done)] {
    // Shutdown() waits for the RPCs, and those need the loop to end. Hence another thread.
    ending_ = std::thread{[this, done] {
      server_->Shutdown(std::chrono::system_clock::now() + longestGoodbye);
      loop_.post(done);
    }};
  });
}

}  // namespace P4rt
