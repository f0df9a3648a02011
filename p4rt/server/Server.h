// The P4Runtime server: gRPC's server with the service on it, listening.
//
//   P4rt::Server server{loop, engine, {.address = P4rt::ListenAddress{"127.0.0.1:9559"}}};
//   loop.run();  // until somebody posts server.shutDown([&] { loop.stop(); })
//
// Thread and process rule: the loop's thread. RPCs that come before the loop runs wait for it.
// Ownership: loop and engine outlive the server.
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

// PEM texts.
struct TlsFiles {
  std::string certificate;  // the server's, with those that stand between it and its root
  std::string key;
  std::string
      clientRoots;  // not empty: clients must show a certificate that one of these has signed
};

struct ServerOptions {
  ListenAddress address;
  RuntimeService::Options service{};
  std::optional<TlsFiles> tls{};  // nothing: plain text
};

class Server {
 public:
  // The longest message that is taken.
  static constexpr int longestMessage = 16 << 20;

  // Throws std::runtime_error that says why when it cannot listen.
  Server(Loop& loop, Engine& engine, const ServerOptions& options);
  // Requires: shutDown() has called back, or the loop has not run.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  [[nodiscard]] int port() const noexcept { return port_; }

  // Finishes the Write under way, answers all other requests with UNAVAILABLE, ends all streams and
  // stops to listen; then calls `done`, on the loop. More calls change nothing.
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
