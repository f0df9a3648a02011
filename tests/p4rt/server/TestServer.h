// A P4Runtime server in this process, with the embedded switch behind it, and controllers that
// reach it over a socket.
#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "p4/v1/p4runtime.grpc.pb.h"
#include "p4rt/Engine.h"
#include "p4rt/core/Loop.h"
#include "p4rt/server/Server.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "tests/p4rt/Entities.h"

namespace P4rtTest {

using P4rt::Code;

// What runs on the loop's thread.
struct Switch {
  Sim::Service& service;
  Sim::HwAgent& agent;
  P4rt::Engine& engine;
  P4rt::Server& server;
  P4rt::Loop& loop;
};

class TestServer {
 public:
  struct Options {
    P4rt::RuntimeService::Options service{};
    std::chrono::milliseconds writeTimeout{5000};
    std::optional<P4rt::TlsFiles> tls{};
  };

  explicit TestServer(Options options);
  TestServer() : TestServer{Options{}} {}
  // Shuts down, if nobody has.
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  [[nodiscard]] const std::string& address() const noexcept { return address_; }
  // Does something with the switch, and waits until it is done.
  void with(const std::function<void(Switch&)>& work);
  // Whether the hardware programs by itself; runs it when it is to.
  void automaticIs(bool automatic);
  // Waits until the switch stores so many flows, which the hardware may not have programmed yet.
  void awaitEntries(std::size_t count);
  void shutDown();
  // Waits for the end of one that somebody else has shut down.
  void join() { thread_.join(); }

 private:
  void run(const Options& options, std::promise<Switch*>& ready);

  std::string address_;
  Switch* switch_ = nullptr;
  std::thread thread_;
};

// What a test says of an id, for messages that take one.
struct Id {
  std::uint64_t low = 1;
  std::uint64_t high = 0;
};

// A context whose RPC fails rather than hangs.
inline constexpr std::chrono::milliseconds defaultPatience{30'000};
[[nodiscard]] std::unique_ptr<grpc::ClientContext> newContext(
    std::chrono::milliseconds patience = defaultPatience);

// A client with a connection of its own.
class Controller {
 public:
  using Response = p4::v1::StreamMessageResponse;

  explicit Controller(const TestServer& server, Id id = {}, std::string role = {},
                      grpc::ChannelArguments arguments = {});
  Controller(
      const std::string& address, Id id,
      std::shared_ptr<grpc::ChannelCredentials> credentials = grpc::InsecureChannelCredentials());
  ~Controller() { leave(); }
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  [[nodiscard]] p4::v1::P4Runtime::Stub& stub() { return *stub_; }
  [[nodiscard]] const std::shared_ptr<grpc::Channel>& channel() { return channel_; }

  // The stream. Opened by the first message.
  void say(const p4::v1::StreamMessageRequest& message);
  void claim() { claim(id_); }
  void claim(std::optional<Id> id);
  // The next message; nothing when the stream has ended.
  std::optional<Response> hear();
  // The next notice in short: "primary 5", "backup of 5", "no primary 5", or "end CODE".
  std::string standing();
  // How the stream ended.
  grpc::Status end();
  // Closes the stream at once, without goodbye.
  void leave();

  // Requests, in the name of this controller.
  [[nodiscard]] p4::v1::WriteRequest writeRequest(const std::vector<Update>& updates) const;
  grpc::Status write(const std::vector<Update>& updates,
                     std::chrono::milliseconds patience = defaultPatience);
  // The same on another thread.
  std::future<grpc::Status> writeLater(const std::vector<Update>& updates);
  grpc::Status setPipeline();
  // All entries of all tables.
  grpc::Status read(std::vector<p4::v1::TableEntry>& entries);
  [[nodiscard]] std::size_t entries();

 private:
  const Id id_;
  const std::string role_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
};

// A flow to one address that is forwarded to a port, by the P4Info that comes with the server.
[[nodiscard]] Update flow(Update::Type type, std::uint32_t number, std::uint32_t port = 1);
[[nodiscard]] std::vector<Update> flows(Update::Type type, std::uint32_t first,
                                        std::uint32_t count);

[[nodiscard]] p4::v1::SetForwardingPipelineConfigRequest pipelineRequest(Id id = {});

[[nodiscard]] inline Code codeOf(const grpc::Status& status) {
  return static_cast<Code>(status.error_code());
}
// The errors in a status' details, in order.
[[nodiscard]] std::vector<p4::v1::Error> errorsOf(const grpc::Status& status);

}  // namespace P4rtTest
