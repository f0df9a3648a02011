#include "tests/p4rt/server/TestServer.h"

#include <utility>

#include "google/rpc/status.pb.h"
#include "p4rt/server/Files.h"

namespace P4rtTest {
namespace {

template <class Message>
void idIs(Message& message, const Id& id) {
  message.mutable_election_id()->set_high(id.high);
  message.mutable_election_id()->set_low(id.low);
}

}  // namespace

// The server.

TestServer::TestServer(Options options) {
  std::promise<Switch*> ready;
  thread_ = std::thread{[&] { run(options, ready); }};
  switch_ = ready.get_future().get();
}

void TestServer::run(const Options& options, std::promise<Switch*>& ready) {
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
  service.start();
  for (std::uint32_t port = 1; port <= 8; ++port) {
    service.portIs(port, Interface::IntfId{"Ethernet" + std::to_string(port)});
  }
  P4rt::Loop loop;
  P4rt::Engine engine{service, loop, {.writeTimeout = options.writeTimeout}};
  P4rt::Server server{loop,
                      engine,
                      {.address = P4rt::ListenAddress{"127.0.0.1:0"},
                       .service = options.service,
                       .tls = options.tls}};
  address_ = "127.0.0.1:" + std::to_string(server.port());
  Switch everything{service, agent, engine, server, loop};
  ready.set_value(&everything);
  loop.run();
  engine.verify();
  service.verify();
  agent.verify();
}

TestServer::~TestServer() {
  if (thread_.joinable()) {
    shutDown();
  }
}

void TestServer::with(const std::function<void(Switch&)>& work) {
  std::promise<void> done;
  switch_->loop.post([&] {
    work(*switch_);
    done.set_value();
  });
  done.get_future().get();
}

void TestServer::automaticIs(bool automatic) {
  with([&](Switch& has) {
    has.agent.automaticIs(automatic);
    Sim::Service::settle();
  });
}

void TestServer::awaitEntries(std::size_t count) {
  for (std::size_t stored = count + 1; stored != count;) {
    with([&](Switch& has) {
      stored = 0;
      for (const Sim::TableView& table : has.service.entries()) {
        stored += table.entries.size();
      }
    });
  }
}

void TestServer::shutDown() {
  switch_->loop.post([has = switch_] { has->server.shutDown([has] { has->loop.stop(); }); });
  thread_.join();
}

// A controller.

Controller::Controller(const TestServer& server, Id id, std::string role,
                       grpc::ChannelArguments arguments)
    : id_{id}, role_{std::move(role)} {
  // Each has a connection of its own.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  channel_ =
      grpc::CreateCustomChannel(server.address(), grpc::InsecureChannelCredentials(), arguments);
  stub_ = p4::v1::P4Runtime::NewStub(channel_);
}

Controller::Controller(const std::string& address, Id id,
                       std::shared_ptr<grpc::ChannelCredentials> credentials)
    : id_{id},
      channel_{grpc::CreateChannel(address, credentials)},
      stub_{p4::v1::P4Runtime::NewStub(channel_)} {}

void Controller::say(const p4::v1::StreamMessageRequest& message) {
  if (stream_ == nullptr) {
    context_ = newContext();
    stream_ = stub_->StreamChannel(context_.get());
  }
  stream_->Write(message);
}

void Controller::claim(std::optional<Id> id) {
  p4::v1::StreamMessageRequest message;
  message.mutable_arbitration()->set_device_id(1);
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
  const std::string highest =
      notice.has_election_id() ? " " + std::to_string(notice.election_id().low()) : "";
  switch (static_cast<Code>(notice.status().code())) {
    case Code::ok_:
      return "primary" + highest;
    case Code::alreadyExists_:
      return "backup of" + highest;
    case Code::notFound_:
      return "no primary" + highest;
    default:
      return message->ShortDebugString();
  }
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

p4::v1::WriteRequest Controller::writeRequest(const std::vector<Update>& updates) const {
  p4::v1::WriteRequest request;
  request.set_device_id(1);
  request.set_role(role_);
  idIs(request, id_);
  request.mutable_updates()->Assign(updates.begin(), updates.end());
  return request;
}

grpc::Status Controller::write(const std::vector<Update>& updates,
                               std::chrono::milliseconds patience) {
  const auto context = newContext(patience);
  p4::v1::WriteResponse response;
  return stub_->Write(context.get(), writeRequest(updates), &response);
}

std::future<grpc::Status> Controller::writeLater(const std::vector<Update>& updates) {
  return std::async(std::launch::async, [this, updates] { return write(updates); });
}

grpc::Status Controller::setPipeline() {
  const auto context = newContext();
  p4::v1::SetForwardingPipelineConfigResponse response;
  return stub_->SetForwardingPipelineConfig(context.get(), pipelineRequest(id_), &response);
}

grpc::Status Controller::read(std::vector<p4::v1::TableEntry>& entries) {
  p4::v1::ReadRequest request;
  request.set_device_id(1);
  request.add_entities()->mutable_table_entry();
  const auto context = newContext();
  const auto reader = stub_->Read(context.get(), request);
  for (p4::v1::ReadResponse response; reader->Read(&response);) {
    for (const p4::v1::Entity& entity : response.entities()) {
      entries.push_back(entity.table_entry());
    }
  }
  return reader->Finish();
}

std::size_t Controller::entries() {
  std::vector<p4::v1::TableEntry> entries;
  EXPECT_EQ(codeOf(read(entries)), Code::ok_);
  return entries.size();
}

// Messages.

std::unique_ptr<grpc::ClientContext> newContext(std::chrono::milliseconds patience) {
  auto context = std::make_unique<grpc::ClientContext>();
  context->set_deadline(std::chrono::system_clock::now() + patience);
  return context;
}

Update flow(Update::Type type, std::uint32_t number, std::uint32_t port) {
  const std::string action = type == Update::DELETE ? "" : forward(static_cast<int>(port));
  return update(type, acl(static_cast<int>(number), action));
}

std::vector<Update> flows(Update::Type type, std::uint32_t first, std::uint32_t count) {
  std::vector<Update> updates;
  for (std::uint32_t number = first; number < first + count; ++number) {
    updates.push_back(flow(type, number));
  }
  return updates;
}

p4::v1::SetForwardingPipelineConfigRequest pipelineRequest(Id id) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  request.set_device_id(1);
  idIs(request, id);
  request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
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
