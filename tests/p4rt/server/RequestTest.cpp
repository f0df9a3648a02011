// The requests as gRPC brings them: who may make them, how they end, and how much of that a client
// takes.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4rt/server/TestServer.h"

namespace P4rtTest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using Action = p4::v1::SetForwardingPipelineConfigRequest;
using GetRequest = p4::v1::GetForwardingPipelineConfigRequest;

class RequestTest : public testing::Test {
 protected:
  void primaryIs() {
    controller_.claim();
    ASSERT_EQ(controller_.standing(), "primary 1");
  }

  Code write(const p4::v1::WriteRequest& request) {
    const auto context = newContext();
    p4::v1::WriteResponse response;
    last_ = controller_.stub().Write(context.get(), request, &response);
    return codeOf(last_);
  }
  Code set(const p4::v1::SetForwardingPipelineConfigRequest& request) {
    const auto context = newContext();
    p4::v1::SetForwardingPipelineConfigResponse response;
    last_ = controller_.stub().SetForwardingPipelineConfig(context.get(), request, &response);
    return codeOf(last_);
  }
  Code get(GetRequest::ResponseType type, std::uint64_t device = 1) {
    const auto context = newContext();
    GetRequest request;
    request.set_device_id(device);
    request.set_response_type(type);
    got_.Clear();
    last_ = controller_.stub().GetForwardingPipelineConfig(context.get(), request, &got_);
    return codeOf(last_);
  }
  Code read(std::uint64_t device) {
    p4::v1::ReadRequest request;
    request.set_device_id(device);
    request.add_entities()->mutable_table_entry();
    const auto context = newContext();
    last_ = controller_.stub().Read(context.get(), request)->Finish();
    return codeOf(last_);
  }

  TestServer server_;
  Controller controller_{server_};
  grpc::Status last_;
  p4::v1::GetForwardingPipelineConfigResponse got_;
};

TEST_F(RequestTest, IsCheckedForDeviceRolePrimaryAndPipelineInThatOrder) {
  p4::v1::WriteRequest request = controller_.writeRequest(flows(Update::INSERT, 1, 1));
  request.set_device_id(2);
  request.set_role("nobody");
  EXPECT_EQ(write(request), Code::notFound_);
  EXPECT_THAT(last_.error_message(), HasSubstr("device 2"));
  request.set_device_id(1);
  EXPECT_EQ(write(request), Code::notFound_);
  EXPECT_THAT(last_.error_message(), HasSubstr("'nobody'"));
  request.clear_role();
  EXPECT_EQ(write(request), Code::permissionDenied_);
  primaryIs();
  EXPECT_EQ(write(request), Code::failedPrecondition_) << "no pipeline";
  EXPECT_THAT(last_.error_details(), IsEmpty());
  EXPECT_EQ(read(1), Code::failedPrecondition_);
  EXPECT_EQ(read(2), Code::notFound_);
  request.clear_election_id();
  EXPECT_EQ(write(request), Code::permissionDenied_);

  auto pipeline = pipelineRequest();
  pipeline.set_device_id(2);
  EXPECT_EQ(set(pipeline), Code::notFound_);
  EXPECT_EQ(set(pipelineRequest({2})), Code::permissionDenied_);
  EXPECT_EQ(set(pipelineRequest()), Code::ok_);
  EXPECT_EQ(write(controller_.writeRequest(flows(Update::INSERT, 1, 1))), Code::ok_);
}

TEST_F(RequestTest, APipelineComesBackInThePartsThatAreAskedFor) {
  primaryIs();
  EXPECT_EQ(get(GetRequest::ALL), Code::ok_);
  EXPECT_FALSE(got_.has_config()) << "none was set";
  auto pipeline = pipelineRequest();
  EXPECT_EQ(set(pipeline), Code::ok_);
  EXPECT_EQ(get(GetRequest::ALL), Code::ok_);
  EXPECT_FALSE(got_.config().has_cookie()) << "none was set";
  pipeline.mutable_config()->set_p4_device_config("anything\0at all");
  pipeline.mutable_config()->mutable_cookie()->set_cookie(0);
  EXPECT_EQ(set(pipeline), Code::ok_);
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
  primaryIs();
  ASSERT_EQ(set(pipelineRequest()), Code::ok_);
  const auto errorsFor = [&](std::uint32_t bad, std::uint32_t good, std::uint32_t first) {
    auto updates = flows(Update::MODIFY, 100'000, bad);
    const auto more = flows(Update::INSERT, first, good);
    updates.insert(updates.end(), more.begin(), more.end());
    EXPECT_EQ(write(controller_.writeRequest(updates)), Code::unknown_);
    return last_.error_details().empty() ? std::vector<p4::v1::Error>{} : errorsOf(last_);
  };
  EXPECT_FALSE(errorsFor(10, 50, 0).front().message().empty());
  auto errors = errorsFor(150, 0, 0);
  ASSERT_EQ(errors.size(), 150U);
  EXPECT_TRUE(errors.front().message().empty());
  EXPECT_EQ(static_cast<Code>(errors.front().canonical_code()), Code::notFound_);
  errors = errorsFor(1, 220, 1000);
  EXPECT_EQ(errors.size(), 221U);
  EXPECT_THAT(errorsFor(300, 0, 0), IsEmpty());
  EXPECT_THAT(last_.error_message(), HasSubstr("too long to send"));
  controller_.claim();
  EXPECT_EQ(controller_.standing(), "primary 1") << "the connection lives";

  TestServer generous{{.service = {.mostErrorDetails = 1 << 20}}};
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, 1 << 21);
  Controller patient{generous, {1}, {}, arguments};
  patient.claim();
  EXPECT_EQ(patient.standing(), "primary 1");
  ASSERT_EQ(codeOf(patient.setPipeline()), Code::ok_);
  const auto all = errorsOf(patient.write(flows(Update::MODIFY, 0, 3000)));
  ASSERT_EQ(all.size(), 3000U);
  EXPECT_FALSE(all.back().message().empty());
}

}  // namespace
}  // namespace P4rtTest
