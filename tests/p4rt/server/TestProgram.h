// ostra-p4rt as a process, and controllers that reach it over a socket.
#pragma once

#include <grpcpp/grpcpp.h>

#include <future>

#include "p4/v1/p4runtime.grpc.pb.h"
#include "p4rt/RpcStatus.h"
#include "tests/cli/CliProgram.h"
#include "tests/p4rt/Entities.h"

namespace P4rtTest {

using P4rt::Code;

// A server on a free port that has said where it listens.
class Program {
 public:
  explicit Program(CliTest::Arguments more = {});

  [[nodiscard]] std::string address() const { return greeting.at("address"); }
  // Types a command, and a line behind it that tells where its output ends.
  std::string type(const std::string& command);
  // Whether the hardware programs by itself; runs it when it is to.
  void automaticIs(bool automatic) { type(automatic ? "hw auto\nhw run" : "hw manual"); }
  // Waits until the switch stores so many flows, which the hardware may not have programmed yet.
  void awaitEntries(std::size_t count);

  CliTest::Process process;
  const CliTest::Json greeting;
};

// An election id.
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
  using Credentials = std::shared_ptr<grpc::ChannelCredentials>;

  explicit Controller(const Program& program, Id id = {}, std::string role = {},
                      grpc::ChannelArguments arguments = {},
                      const Credentials& credentials = grpc::InsecureChannelCredentials());
  ~Controller() { leave(); }
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  [[nodiscard]] p4::v1::P4Runtime::Stub& stub() { return *stub_; }

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
  // Becomes the primary, and sets the shipped pipeline.
  void takeOver();

  // Requests, in the name of this controller.
  [[nodiscard]] p4::v1::WriteRequest writeRequest(const std::vector<Update>& updates) const;
  grpc::Status write(const p4::v1::WriteRequest& request,
                     std::chrono::milliseconds patience = defaultPatience);
  grpc::Status write(const std::vector<Update>& updates,
                     std::chrono::milliseconds patience = defaultPatience) {
    return write(writeRequest(updates), patience);
  }
  // The same on another thread.
  std::future<grpc::Status> writeLater(const std::vector<Update>& updates);
  grpc::Status set(const p4::v1::SetForwardingPipelineConfigRequest& request);
  // All entries of all tables.
  [[nodiscard]] std::vector<p4::v1::TableEntry> entries();

 private:
  const Id id_;
  const std::string role_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
};

// Flows to one address each that are forwarded to a port.
[[nodiscard]] Update flow(Update::Type type, int number, int port = 1);
[[nodiscard]] std::vector<Update> flows(Update::Type type, int first, int count);

// Of all entries of all tables.
[[nodiscard]] p4::v1::ReadRequest readRequest();
[[nodiscard]] p4::v1::SetForwardingPipelineConfigRequest pipelineRequest(Id id = {});

[[nodiscard]] inline Code codeOf(const grpc::Status& status) {
  return static_cast<Code>(status.error_code());
}
// The errors in a status' details, in order.
[[nodiscard]] std::vector<p4::v1::Error> errorsOf(const grpc::Status& status);

}  // namespace P4rtTest
