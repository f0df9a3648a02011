// ostra-p4rt as a process, and controllers that reach it over a socket.
#pragma once

#include <grpcpp/grpcpp.h>

#include <future>

#include "google/rpc/status.pb.h"
#include "p4/v1/p4runtime.grpc.pb.h"
#include "p4rt/RpcStatus.h"
#include "p4rt/server/Files.h"
#include "tests/cli/CliProgram.h"
#include "tests/p4rt/Entities.h"

namespace P4rtTest {

using P4rt::Code;
using std::chrono::milliseconds;

// An election id.
struct Id {
  std::uint64_t low = 1;
  std::uint64_t high = 0;
};

template <class Message>
void idIs(Message& message, const Id& id) {
  message.mutable_election_id()->set_high(id.high);
  message.mutable_election_id()->set_low(id.low);
}

// Flows to one address each that are forwarded to a port.
inline Update flow(Update::Type type, int number, int port = 1) {
  return update(type, acl(number, type == Update::DELETE ? "" : forward(port)));
}
inline std::vector<Update> flows(Update::Type type, int first, int count) {
  std::vector<Update> updates;
  for (int number = first; number < first + count; ++number) {
    updates.push_back(flow(type, number));
  }
  return updates;
}

// Of all entries of all tables.
inline p4::v1::ReadRequest readRequest() {
  return parse<p4::v1::ReadRequest>("device_id: 1 entities { table_entry {} }");
}

inline p4::v1::SetForwardingPipelineConfigRequest pipelineRequest(Id id = {}) {
  auto request =
      parse<p4::v1::SetForwardingPipelineConfigRequest>("device_id: 1 action: VERIFY_AND_COMMIT");
  idIs(request, id);
  *request.mutable_config()->mutable_p4info() = P4rt::p4infoOf(OSTRA_P4INFO);
  return request;
}

inline Code codeOf(const grpc::Status& status) { return static_cast<Code>(status.error_code()); }

// The errors in a status' details, in order.
inline std::vector<p4::v1::Error> errorsOf(const grpc::Status& status) {
  google::rpc::Status details;
  EXPECT_TRUE(details.ParseFromString(status.error_details()));
  std::vector<p4::v1::Error> errors;
  for (const google::protobuf::Any& detail : details.details()) {
    EXPECT_TRUE(detail.UnpackTo(&errors.emplace_back()));
  }
  return errors;
}

// A server on a free port that has said where it listens.
struct Program {
  explicit Program(CliTest::Arguments more = {}) : process{OSTRA_P4RT_PROGRAM, withDefaults(more)} {
    greeting = CliTest::Json::parse(process.readUntil("\n"));
  }

  [[nodiscard]] std::string address() const { return greeting.at("address"); }
  // What the console prints for a command, and for one that marks its end.
  std::string type(const std::string& command) {
    process.write(command + "\necho played\n");
    return process.readUntil("played\"}\n");
  }
  // Sets whether the hardware is automatic. If so, it is run.
  void automaticIs(bool automatic) { type(automatic ? "hw auto\nhw run" : "hw manual"); }
  // Waits until the switch stores so many flows, which the hardware may not have programmed yet.
  void awaitEntries(std::size_t count) {
    for (std::size_t stored = count + 1; stored != count && !testing::Test::HasFailure();) {
      stored = 0;
      const auto shown = CliTest::Json::parse(CliTest::linesOf(type("show entries")).front());
      for (const auto& table : shown["tables"]) {
        stored += table["entries"].size();
      }
    }
  }

  CliTest::Process process;
  CliTest::Json greeting;

 private:
  static CliTest::Arguments withDefaults(CliTest::Arguments more) {
    more.insert(more.begin(),
                {"--console", "--json", "--listen", "127.0.0.1:0", "--config", OSTRA_TOPOLOGY});
    return more;
  }
};

// A context whose RPC fails rather than hangs.
inline std::unique_ptr<grpc::ClientContext> newContext(milliseconds patience = milliseconds{
                                                           30'000}) {
  auto context = std::make_unique<grpc::ClientContext>();
  context->set_deadline(std::chrono::system_clock::now() + patience);
  return context;
}

// A client with a connection of its own.
class Controller {
 public:
  using Request = p4::v1::StreamMessageRequest;
  using Response = p4::v1::StreamMessageResponse;
  using Credentials = std::shared_ptr<grpc::ChannelCredentials>;

  explicit Controller(const Program& program, Id id = {}, std::string role = {},
                      grpc::ChannelArguments arguments = {},
                      const Credentials& credentials = grpc::InsecureChannelCredentials())
      : id_{id}, role_{std::move(role)} {
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
    stub_ = p4::v1::P4Runtime::NewStub(
        grpc::CreateCustomChannel(program.address(), credentials, arguments));
  }
  ~Controller() { leave(); }
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  [[nodiscard]] p4::v1::P4Runtime::Stub& stub() { return *stub_; }

  // The stream. Opened by the first message.
  void say(const Request& message) {
    if (stream_ == nullptr) {
      context_ = newContext();
      stream_ = stub_->StreamChannel(context_.get());
    }
    stream_->Write(message);
  }
  void claim() { claim(id_); }
  void claim(std::optional<Id> id) {
    auto message = parse<Request>("arbitration { device_id: 1 }");
    if (!role_.empty()) {
      message.mutable_arbitration()->mutable_role()->set_name(role_);
    }
    if (id) {
      idIs(*message.mutable_arbitration(), *id);
    }
    say(message);
  }
  // The same, and the notice that comes next.
  std::string claimAndHear() { return claimAndHear(id_); }
  std::string claimAndHear(std::optional<Id> id) {
    claim(id);
    return standing();
  }
  // The next message; nothing when the stream has ended.
  std::optional<Response> hear() {
    Response message;
    return stream_->Read(&message) ? std::optional{message} : std::nullopt;
  }
  // The next notice in short: "primary 5", "backup of 5", "no primary 5", or "end CODE".
  std::string standing() {
    const auto message = hear();
    if (!message) {
      return "end " + std::to_string(static_cast<int>(codeOf(end())));
    }
    const auto& notice = message->arbitration();
    EXPECT_EQ(notice.device_id(), 1U);
    EXPECT_EQ(notice.role().name(), role_);
    static const std::map<Code, std::string> standings{{Code::ok_, "primary"},
                                                       {Code::alreadyExists_, "backup of"},
                                                       {Code::notFound_, "no primary"}};
    std::string text = standings.at(Code{notice.status().code()});
    if (notice.has_election_id()) {
      const auto& [high, low] = std::pair{notice.election_id().high(), notice.election_id().low()};
      text += (high == 0 ? " " : " " + std::to_string(high) + ":") + std::to_string(low);
    }
    return text;
  }
  // How the stream ended.
  grpc::Status end() {
    const grpc::Status status = stream_->Finish();
    stream_.reset();
    return status;
  }
  // Closes the stream at once, without goodbye.
  void leave() {
    if (stream_ != nullptr) {
      context_->TryCancel();
      (void)end();
    }
  }
  // Becomes the primary, and sets the shipped pipeline.
  void takeOver() {
    EXPECT_EQ(claimAndHear(), "primary " + std::to_string(id_.low));
    EXPECT_EQ(codeOf(set(pipelineRequest(id_))), Code::ok_);
  }

  // Requests, in the name of this controller.
  [[nodiscard]] p4::v1::WriteRequest writeRequest(const std::vector<Update>& updates) const {
    p4::v1::WriteRequest request;
    request.set_device_id(1);
    request.set_role(role_);
    idIs(request, id_);
    request.mutable_updates()->Assign(updates.begin(), updates.end());
    return request;
  }
  grpc::Status write(const p4::v1::WriteRequest& request,
                     milliseconds patience = milliseconds{30'000}) {
    p4::v1::WriteResponse response;
    return stub_->Write(newContext(patience).get(), request, &response);
  }
  grpc::Status write(const std::vector<Update>& updates,
                     milliseconds patience = milliseconds{30'000}) {
    return write(writeRequest(updates), patience);
  }
  // The same on another thread.
  std::future<grpc::Status> writeLater(const std::vector<Update>& updates) {
    return std::async(std::launch::async, [this, updates] { return write(updates); });
  }
  grpc::Status set(const p4::v1::SetForwardingPipelineConfigRequest& request) {
    p4::v1::SetForwardingPipelineConfigResponse response;
    return stub_->SetForwardingPipelineConfig(newContext().get(), request, &response);
  }
  // All entries of all tables.
  [[nodiscard]] std::vector<p4::v1::TableEntry> entries() {
    std::vector<p4::v1::TableEntry> entries;
    const auto context = newContext();
    const auto reader = stub_->Read(context.get(), readRequest());
    for (p4::v1::ReadResponse response; reader->Read(&response);) {
      for (const p4::v1::Entity& entity : response.entities()) {
        entries.push_back(entity.table_entry());
      }
    }
    EXPECT_EQ(codeOf(reader->Finish()), Code::ok_);
    return entries;
  }

 private:
  const Id id_;
  const std::string role_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<grpc::ClientReaderWriter<Request, Response>> stream_;
};

}  // namespace P4rtTest
