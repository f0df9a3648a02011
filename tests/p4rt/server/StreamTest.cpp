// StreamChannel: who is told what, and what ends a stream.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4rt/server/TestServer.h"

namespace P4rtTest {
namespace {

using testing::HasSubstr;

TEST(StreamTest, ThreeControllersLoseAndRegainThePrimary) {
  const TestServer server;
  Controller first{server, {10}};
  Controller second{server, {20}};
  Controller third{server, {5}};
  first.claim();
  EXPECT_EQ(first.standing(), "primary 10");
  EXPECT_EQ(codeOf(first.setPipeline()), Code::ok_);
  third.claim();
  EXPECT_EQ(third.standing(), "backup of 10");
  second.claim();
  EXPECT_EQ(second.standing(), "primary 20");
  EXPECT_EQ(first.standing(), "backup of 20");
  EXPECT_EQ(third.standing(), "backup of 20");

  EXPECT_EQ(codeOf(first.write(flows(Update::INSERT, 1, 1))), Code::permissionDenied_);
  EXPECT_EQ(codeOf(second.write(flows(Update::INSERT, 1, 1))), Code::ok_);
  EXPECT_EQ(third.entries(), 1U) << "anybody may read";

  second.leave();
  EXPECT_EQ(first.standing(), "no primary 20");
  EXPECT_EQ(third.standing(), "no primary 20");
  EXPECT_EQ(codeOf(second.write(flows(Update::DELETE, 1, 1))), Code::permissionDenied_);
  first.claim();
  EXPECT_EQ(first.standing(), "no primary 20") << "its id is below the highest ever";
  third.claim(Id{20});
  EXPECT_EQ(third.standing(), "primary 20");
  EXPECT_EQ(first.standing(), "backup of 20");
  third.claim(Id{7});
  EXPECT_EQ(third.standing(), "no primary 20");
  EXPECT_EQ(first.standing(), "no primary 20");
  third.claim(std::nullopt);
  EXPECT_EQ(third.standing(), "no primary 20");
}

TEST(StreamTest, RolesAreRealmsOfTheirOwnWithFullAccess) {
  const TestServer server;
  Controller plain{server, {1}};
  Controller named{server, {1}, "sdn"};
  EXPECT_EQ(codeOf(named.write({})), Code::notFound_) << "nobody has asked for that role";
  plain.claim();
  named.claim();
  EXPECT_EQ(plain.standing(), "primary 1");
  EXPECT_EQ(named.standing(), "primary 1");
  EXPECT_EQ(codeOf(plain.setPipeline()), Code::ok_);
  EXPECT_EQ(codeOf(named.write(flows(Update::INSERT, 1, 2))), Code::ok_);
  EXPECT_EQ(codeOf(plain.write(flows(Update::DELETE, 1, 1))), Code::ok_);
  EXPECT_EQ(named.entries(), 1U);
}

TEST(StreamTest, SaysWhyItEndsAStream) {
  const TestServer server;
  Controller primary{server, {3}};
  primary.claim();
  EXPECT_EQ(primary.standing(), "primary 3");
  const auto endOf = [&](const p4::v1::StreamMessageRequest& message) {
    Controller other{server};
    other.say(message);
    EXPECT_FALSE(other.hear());
    const grpc::Status end = other.end();
    EXPECT_FALSE(end.error_message().empty());
    return codeOf(end);
  };
  p4::v1::StreamMessageRequest message;
  message.mutable_arbitration()->set_device_id(2);
  EXPECT_EQ(endOf(message), Code::notFound_);
  message.mutable_arbitration()->set_device_id(1);
  message.mutable_arbitration()->mutable_election_id()->set_low(3);
  EXPECT_EQ(endOf(message), Code::invalidArgument_) << "in use";
  message.mutable_arbitration()->mutable_election_id()->set_low(2);
  message.mutable_arbitration()->mutable_role()->mutable_config();
  EXPECT_EQ(endOf(message), Code::invalidArgument_) << "no role configuration";

  Controller backup{server, {2}};
  backup.claim();
  EXPECT_EQ(backup.standing(), "backup of 3");
  message.mutable_arbitration()->mutable_role()->clear_config();
  message.mutable_arbitration()->mutable_role()->set_name("another");
  primary.say(message);
  EXPECT_EQ(primary.standing(), "end 9");
  EXPECT_EQ(backup.standing(), "no primary 3");
}

TEST(StreamTest, AnswersWhatIsNoArbitrationWithAnErrorThatNamesIt) {
  const TestServer server;
  Controller primary{server};
  primary.claim();
  EXPECT_EQ(primary.standing(), "primary 1");
  const auto errorOf = [](Controller& controller, const p4::v1::StreamMessageRequest& message) {
    controller.say(message);
    const auto answer = controller.hear();
    return answer ? answer->error() : p4::v1::StreamError{};
  };
  p4::v1::StreamMessageRequest message;
  message.mutable_packet()->set_payload("abc");
  auto error = errorOf(primary, message);
  EXPECT_EQ(static_cast<Code>(error.canonical_code()), Code::unimplemented_);
  EXPECT_EQ(error.packet_out().packet_out().payload(), "abc");
  Controller stranger{server};
  error = errorOf(stranger, message);
  EXPECT_EQ(static_cast<Code>(error.canonical_code()), Code::permissionDenied_);
  message.mutable_digest_ack()->set_digest_id(7);
  EXPECT_EQ(errorOf(primary, message).digest_list_ack().digest_list_ack().digest_id(), 7U);
  message.mutable_other()->set_type_url("any");
  EXPECT_EQ(errorOf(primary, message).other().other().type_url(), "any");
  error = errorOf(primary, {});
  EXPECT_EQ(static_cast<Code>(error.canonical_code()), Code::invalidArgument_);
  EXPECT_EQ(codeOf(primary.setPipeline()), Code::ok_) << "still the primary";
}

TEST(StreamTest, ANewPrimaryIsToldWhenTheWritesOfTheOldOneAreThrough) {
  TestServer server;
  Controller old{server, {1}};
  old.claim();
  EXPECT_EQ(old.standing(), "primary 1");
  ASSERT_EQ(codeOf(old.setPipeline()), Code::ok_);
  server.automaticIs(false);
  auto written = old.writeLater(flows(Update::INSERT, 1, 3));
  server.awaitEntries(3);
  Controller next{server, {2}};
  next.claim();
  EXPECT_EQ(old.standing(), "backup of 2");
  EXPECT_EQ(codeOf(old.write(flows(Update::INSERT, 5, 1))), Code::permissionDenied_);
  EXPECT_EQ(codeOf(next.write(flows(Update::INSERT, 5, 1))), Code::permissionDenied_);
  server.automaticIs(true);
  EXPECT_EQ(codeOf(written.get()), Code::ok_);
  EXPECT_EQ(next.standing(), "primary 2");
  EXPECT_EQ(codeOf(next.write(flows(Update::INSERT, 5, 1))), Code::ok_);
  EXPECT_EQ(next.entries(), 4U);
}

TEST(StreamTest, AFloodOfStreamsIsRefusedAndLeavesRoomForOthersWhenItIsOver) {
  const TestServer server;
  std::vector<std::unique_ptr<Controller>> flood;
  std::size_t served = 0;
  std::size_t refused = 0;
  for (std::uint64_t id = 1; id <= P4rt::Arbitration::mostStreams + 20; ++id) {
    auto& controller = *flood.emplace_back(std::make_unique<Controller>(server, Id{id}));
    controller.claim();
    const std::string standing = controller.standing();
    served += standing.starts_with("primary") ? 1U : 0U;
    refused += standing == "end 8" ? 1U : 0U;
  }
  EXPECT_EQ(served, P4rt::Arbitration::mostStreams);
  EXPECT_EQ(refused, 20U);
  flood.clear();
  std::string standing;
  for (int attempt = 0; attempt < 100 && !standing.starts_with("primary"); ++attempt) {
    Controller late{server, {10'000}};
    late.claim();
    standing = late.standing();
  }
  EXPECT_EQ(standing, "primary 10000");
}

TEST(StreamTest, AControllerThatTakesNothingIsCutOffAndTheOthersAreServed) {
  const TestServer server;
  // It leaves the notices where they are, and its system does not buffer many.
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  Controller deaf{server, {1}, {}, arguments};
  deaf.claim();
  EXPECT_EQ(deaf.standing(), "primary 1");
  // Each change of the primary's id is a notice to it.
  Controller lively{server, {2}};
  const auto cutOff = [&] {
    Controller heir{server, {1}};
    heir.claim();
    return heir.standing().starts_with("backup");  // the id of the deaf one is free
  };
  bool seen = false;
  for (std::uint64_t id = 2; id < 20'000 && !seen; ++id) {
    lively.claim(Id{id});
    ASSERT_EQ(lively.standing(), "primary " + std::to_string(id));
    seen = id % 500 == 0 && cutOff();
  }
  EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace P4rtTest
