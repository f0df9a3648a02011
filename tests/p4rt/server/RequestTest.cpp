// The requests as gRPC brings them: who may make them, how they end, and how much of that a client
// takes.
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

using GetRequest = p4::v1::GetForwardingPipelineConfigRequest;

class RequestTest : public testing::Test {
 protected:
  Code get(GetRequest::ResponseType type, std::uint64_t device = 1) {
    const auto context = newContext();
    GetRequest request;
    request.set_device_id(device);
    request.set_response_type(type);
    got_.Clear();
    return codeOf(controller_.stub().GetForwardingPipelineConfig(context.get(), request, &got_));
  }
  Code read(std::uint64_t device) {
    p4::v1::ReadRequest request = readRequest();
    request.set_device_id(device);
    const auto context = newContext();
    return codeOf(controller_.stub().Read(context.get(), request)->Finish());
  }

  Program program_;
  Controller controller_{program_};
  p4::v1::GetForwardingPipelineConfigResponse got_;
};

TEST_F(RequestTest, IsCheckedForDeviceRolePrimaryAndPipelineInThatOrder) {
  p4::v1::WriteRequest request = controller_.writeRequest(flows(Update::INSERT, 1, 1));
  const auto expect = [&](Code code, const std::string& reason) {
    const grpc::Status status = controller_.write(request);
    EXPECT_EQ(codeOf(status), code);
    EXPECT_THAT(status.error_message(), HasSubstr(reason));
    EXPECT_THAT(status.error_details(), IsEmpty());
  };
  request.set_device_id(2);
  request.set_role("nobody");
  expect(Code::notFound_, "device 2");
  request.set_device_id(1);
  expect(Code::notFound_, "'nobody'");
  request.clear_role();
  expect(Code::permissionDenied_, "there is none");
  EXPECT_EQ(controller_.claimAndHear(), "primary 1");
  expect(Code::failedPrecondition_, "no forwarding pipeline");
  EXPECT_EQ(read(1), Code::failedPrecondition_);
  EXPECT_EQ(read(2), Code::notFound_);
  request.mutable_election_id()->set_high(1);
  expect(Code::permissionDenied_, "(high 1, low 1) is another one");
  request.clear_election_id();
  expect(Code::permissionDenied_, "no election id");

  auto pipeline = pipelineRequest();
  pipeline.set_device_id(2);
  EXPECT_EQ(codeOf(controller_.set(pipeline)), Code::notFound_);
  EXPECT_EQ(codeOf(controller_.set(pipelineRequest({2}))), Code::permissionDenied_);
  EXPECT_EQ(codeOf(controller_.set(pipelineRequest())), Code::ok_);
  EXPECT_EQ(codeOf(controller_.write(flows(Update::INSERT, 1, 1))), Code::ok_);
}

TEST_F(RequestTest, APipelineComesBackInThePartsThatAreAskedFor) {
  EXPECT_EQ(controller_.claimAndHear(), "primary 1");
  EXPECT_EQ(get(GetRequest::ALL), Code::ok_);
  EXPECT_FALSE(got_.has_config()) << "none was set";
  auto pipeline = pipelineRequest();
  EXPECT_EQ(codeOf(controller_.set(pipeline)), Code::ok_);
  EXPECT_EQ(get(GetRequest::ALL), Code::ok_);
  EXPECT_FALSE(got_.config().has_cookie()) << "none was set";
  pipeline.mutable_config()->set_p4_device_config("anything\0at all");
  pipeline.mutable_config()->mutable_cookie()->set_cookie(0);
  EXPECT_EQ(codeOf(controller_.set(pipeline)), Code::ok_);
  const auto parts = [&](GetRequest::ResponseType type) {
    EXPECT_EQ(get(type), Code::ok_);
    return std::string{got_.config().has_p4info() ? "p" : ""} +
           (got_.config().p4_device_config().empty() ? "" : "d") +
           (got_.config().has_cookie() ? "c" : "");
  };
  EXPECT_EQ(parts(GetRequest::ALL), "pdc");
  EXPECT_EQ(got_.config().SerializeAsString(), pipeline.config().SerializeAsString());
  EXPECT_EQ(parts(GetRequest::COOKIE_ONLY), "c");
  EXPECT_EQ(parts(GetRequest::P4INFO_AND_COOKIE), "pc");
  EXPECT_EQ(parts(GetRequest::DEVICE_CONFIG_AND_COOKIE), "dc");
  EXPECT_EQ(get(GetRequest::ALL, 2), Code::notFound_);

  const auto context = newContext();
  p4::v1::CapabilitiesResponse capabilities;
  EXPECT_TRUE(controller_.stub().Capabilities(context.get(), {}, &capabilities).ok());
  EXPECT_EQ(capabilities.p4runtime_api_version(), "1.4.1");
}

TEST_F(RequestTest, ErrorsAreCutToWhatAClientTakesSoThatItKeepsItsConnection) {
  controller_.takeOver();
  const auto statusFor = [&](int bad, int good, int first) {
    auto updates = flows(Update::MODIFY, 100'000, bad);
    const auto more = flows(Update::INSERT, first, good);
    updates.insert(updates.end(), more.begin(), more.end());
    const grpc::Status status = controller_.write(updates);
    EXPECT_EQ(codeOf(status), Code::unknown_);
    return status;
  };
  EXPECT_FALSE(errorsOf(statusFor(10, 50, 0)).front().message().empty());
  const auto errors = errorsOf(statusFor(150, 0, 0));
  ASSERT_EQ(errors.size(), 150U);
  EXPECT_TRUE(errors.front().message().empty());
  EXPECT_EQ(static_cast<Code>(errors.front().canonical_code()), Code::notFound_);
  EXPECT_EQ(errorsOf(statusFor(1, 220, 1000)).size(), 221U);
  const grpc::Status cut = statusFor(300, 0, 0);
  EXPECT_THAT(cut.error_details(), IsEmpty());
  EXPECT_THAT(cut.error_message(), HasSubstr("too long to send"));
  EXPECT_EQ(controller_.claimAndHear(), "primary 1") << "the connection lives";

  Program generous{{"--max-error-details", "1048576"}};
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, 1 << 21);
  Controller patient{generous, {1}, {}, arguments};
  patient.takeOver();
  const auto all = errorsOf(patient.write(flows(Update::MODIFY, 0, 3000)));
  ASSERT_EQ(all.size(), 3000U);
  EXPECT_FALSE(all.back().message().empty());
}

}  // namespace
}  // namespace P4rtTest
