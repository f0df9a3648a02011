#include "tests/p4rt/server/TestProgram.h"

#include "google/rpc/status.pb.h"
#include "p4rt/server/Files.h"

namespace P4rtTest {
namespace {

template <class Message>
void idIs(Message& message, const Id& id) {
  message.mutable_election_id()->set_high(id.high);
  message.mutable_election_id()->set_low(id.low);
}

CliTest::Arguments withDefaults(CliTest::Arguments more) {
  more.insert(more.begin(),
              {"--console", "--json", "--listen", "127.0.0.1:0", "--config", OSTRA_TOPOLOGY});
  return more;
}

}  // namespace

// The server.

Program::Program(CliTest::Arguments more)
    : process{OSTRA_P4RT_PROGRAM, withDefaults(std::move(more))},
      greeting(CliTest::Json::parse(process.readUntil("\n"))) {}

std::string Program::type(const std::string& command) {
  process.write(command + "\necho end-of-output\n");
  const std::string end = "{\"type\":\"echo\",\"text\":\"end-of-output\"}\n";
  std::string output = process.readUntil(end);
  return output.substr(0, output.size() - end.size());
}

void Program::awaitEntries(std::size_t count) {
  for (std::size_t stored = count + 1; stored != count && !testing::Test::HasFailure();) {
    stored = 0;
    const auto shown = CliTest::Json::parse(type("show entries"));
    for (const auto& table : shown["tables"]) {
      stored += table["entries"].size();
    }
  }
}

// A controller.

Controller::Controller(const Program& program, Id id, std::string role,
                       grpc::ChannelArguments arguments, const Credentials& credentials)
    : id_{id}, role_{std::move(role)} {
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
  stub_ = p4::v1::P4Runtime::NewStub(
      grpc::CreateCustomChannel(program.address(), credentials, arguments));
}

void Controller::say(const p4::v1::StreamMessageRequest& message) {
  if (stream_ == nullptr) {
    context_ = newContext();
    stream_ = stub_->StreamChannel(context_.get());
  }
  stream_->Write(message);
}

void Controller::claim(std::optional<Id> id) {
  auto message = parse<p4::v1::StreamMessageRequest>("arbitration { device_id: 1 }");
  if (!role_.empty()) {
    message.mutable_arbitration()->mutable_role()->set_name(role_);
  }
  if (id) {
    idIs(*message.mutable_arbitration(), *id);
  }
  say(message);
}

std::optional<Controller::Response> Controller::hear() {
  Response message;
  return stream_->Read(&message) ? std::optional{message} : std::nullopt;
}

std::string Controller::standing() {
  const auto message = hear();
  if (!message) {
    return "end " + std::to_string(static_cast<int>(codeOf(end())));
  }
  const auto& notice = message->arbitration();
  EXPECT_EQ(notice.device_id(), 1U);
  EXPECT_EQ(notice.role().name(), role_);
  std::string highest;
  if (notice.has_election_id()) {
    const auto& id = notice.election_id();
    highest =
        (id.high() == 0 ? " " : " " + std::to_string(id.high()) + ":") + std::to_string(id.low());
  }
  const auto code = static_cast<Code>(notice.status().code());
  EXPECT_TRUE(code == Code::ok_ || code == Code::alreadyExists_ || code == Code::notFound_)
      << message->ShortDebugString();
  return (code == Code::ok_         ? "primary"
          : code == Code::notFound_ ? "no primary"
                                    : "backup of") +
         highest;
}

grpc::Status Controller::end() {
  const grpc::Status status = stream_->Finish();
  stream_.reset();
  return status;
}

void Controller::leave() {
  if (stream_ != nullptr) {
    context_->TryCancel();
    (void)end();
  }
}

void Controller::takeOver() {
  claim();
  EXPECT_EQ(standing(), "primary " + std::to_string(id_.low));
  EXPECT_EQ(codeOf(set(pipelineRequest(id_))), Code::ok_);
}

p4::v1::WriteRequest Controller::writeRequest(const std::vector<Update>& updates) const {
  p4::v1::WriteRequest request;
  request.set_device_id(1);
  request.set_role(role_);
  idIs(request, id_);
  request.mutable_updates()->Assign(updates.begin(), updates.end());
  return request;
}

grpc::Status Controller::write(const p4::v1::WriteRequest& request,
                               std::chrono::milliseconds patience) {
  const auto context = newContext(patience);
  p4::v1::WriteResponse response;
  return stub_->Write(context.get(), request, &response);
}

std::future<grpc::Status> Controller::writeLater(const std::vector<Update>& updates) {
  return std::async(std::launch::async, [this, updates] { return write(updates); });
}

grpc::Status Controller::set(const p4::v1::SetForwardingPipelineConfigRequest& request) {
  const auto context = newContext();
  p4::v1::SetForwardingPipelineConfigResponse response;
  return stub_->SetForwardingPipelineConfig(context.get(), request, &response);
}

std::vector<p4::v1::TableEntry> Controller::entries() {
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

// Messages.

std::unique_ptr<grpc::ClientContext> newContext(std::chrono::milliseconds patience) {
  auto context = std::make_unique<grpc::ClientContext>();
  context->set_deadline(std::chrono::system_clock::now() + patience);
  return context;
}

Update flow(Update::Type type, int number, int port) {
  return update(type, acl(number, type == Update::DELETE ? "" : forward(port)));
}

std::vector<Update> flows(Update::Type type, int first, int count) {
  std::vector<Update> updates;
  for (int number = first; number < first + count; ++number) {
    updates.push_back(flow(type, number));
  }
  return updates;
}

p4::v1::ReadRequest readRequest() {
  return parse<p4::v1::ReadRequest>("device_id: 1 entities { table_entry {} }");
}

p4::v1::SetForwardingPipelineConfigRequest pipelineRequest(Id id) {
  auto request =
      parse<p4::v1::SetForwardingPipelineConfigRequest>("device_id: 1 action: VERIFY_AND_COMMIT");
  idIs(request, id);
  *request.mutable_config()->mutable_p4info() = P4rt::p4infoOf(OSTRA_P4INFO);
  return request;
}

std::vector<p4::v1::Error> errorsOf(const grpc::Status& status) {
  google::rpc::Status details;
  EXPECT_TRUE(details.ParseFromString(status.error_details()));
  std::vector<p4::v1::Error> errors;
  for (const google::protobuf::Any& detail : details.details()) {
    EXPECT_TRUE(detail.UnpackTo(&errors.emplace_back()));
  }
  return errors;
}

}  // namespace P4rtTest
