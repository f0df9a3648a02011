// The P4Runtime server: a listening gRPC server that offers the service.
//
//   P4rt::Server server{loop, engine, {.address = P4rt::ListenAddress{"127.0.0.1:9559"}}};
//   loop.run();  // until somebody posts server.shutDown([&] { loop.stop(); })
//
// Threads: the loop's thread. RPCs that arrive before the loop runs wait for it.
// Ownership: the loop and the engine outlive the server.
#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "p4rt/server/ListenAddress.h"
#include "p4rt/server/RuntimeService.h"

namespace P4rt {

// The contents of PEM files.
struct TlsFiles {
  // The server's certificate, followed by the intermediate certificates.
  std::string certificate;
  std::string key;
  // Not empty: clients must present a certificate that one of these has signed.
  std::string clientRoots;
};

struct ServerOptions {
  ListenAddress address;
  RuntimeService::Options service{};
  std::optional<TlsFiles> tls{};  // nothing: without TLS
};

class Server {
 public:
  // The maximum size of a message that is accepted, in bytes.
  static constexpr int longestMessage = 16 << 20;

  // Starts to listen.
  // Throws: std::runtime_error when it cannot; what() says why.
  Server(Loop& loop, Engine& engine, const ServerOptions& options);
  // Requires: shutDown() has called `done`, or the loop has not run.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The port on which it listens.
  [[nodiscard]] int port() const noexcept { return port_; }

  // Lets the request in progress finish, answers all others with UNAVAILABLE, ends all streams and
  // stops listening. Then calls `done` on the loop's thread. Further calls do nothing.
  void shutDown(std::function<void()> done);

 private:
  // Constant after construction.
  Loop& loop_;
  RuntimeService service_;
  std::unique_ptr<grpc::Server> server_;
  int port_ = 0;

  // The loop's thread.
  std::thread ending_;
  bool shutDown_ = false;
};

}  // namespace P4rt
