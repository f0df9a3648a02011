// StreamChannel: who is told what, and what ends a stream.
#include "p4rt/core/Arbitration.h"
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

constexpr auto message = parse<p4::v1::StreamMessageRequest>;

class StreamTest : public testing::Test {
 protected:
  Program program_;
};

TEST_F(StreamTest, SaysWhyItEndsAStream) {
  Controller primary{program_, {3}};
  primary.takeOver();
  const auto endOf = [&](const std::string& claim) {
    Controller other{program_};
    other.say(message("arbitration { " + claim + " }"));
    EXPECT_FALSE(other.hear());
    const grpc::Status end = other.end();
    EXPECT_FALSE(end.error_message().empty());
    return codeOf(end);
  };
  EXPECT_EQ(endOf("device_id: 2"), Code::notFound_);
  EXPECT_EQ(endOf("device_id: 1 election_id { low: 3 }"), Code::invalidArgument_) << "in use";
  EXPECT_EQ(endOf("device_id: 1 election_id { low: 2 } role { config {} }"), Code::invalidArgument_)
      << "no role configuration";

  Controller backup{program_, {2}};
  EXPECT_EQ(backup.claimAndHear(), "backup of 3");
  primary.say(
      message("arbitration { device_id: 1 election_id { low: 2 } role { name: 'another' } }"));
  EXPECT_EQ(primary.standing(), "end 9");
  EXPECT_EQ(backup.standing(), "no primary 3");
  EXPECT_EQ(backup.claimAndHear(std::nullopt), "no primary 3");
  EXPECT_EQ(backup.claimAndHear(Id{2, 1}), "primary 1:2");
}

TEST_F(StreamTest, AnswersWhatIsNoArbitrationWithAnErrorThatNamesIt) {
  Controller primary{program_};
  primary.takeOver();
  Controller stranger{program_};
  const auto expectError = [](Controller& controller, const std::string& sent, Code code,
                              const std::string& details) {
    controller.say(message(sent));
    auto error = controller.hear().value_or(Controller::Response{}).error();
    EXPECT_EQ(static_cast<Code>(error.canonical_code()), code);
    EXPECT_FALSE(error.message().empty());
    error.clear_canonical_code();
    error.clear_message();
    EXPECT_EQ(error.ShortDebugString(), details);
  };
  const std::string packet = "packet { payload: \"abc\" }";
  expectError(primary, packet, Code::unimplemented_,
              "packet_out { packet_out { payload: \"abc\" } }");
  expectError(stranger, packet, Code::permissionDenied_,
              "packet_out { packet_out { payload: \"abc\" } }");
  expectError(primary, "digest_ack { digest_id: 7 }", Code::unimplemented_,
              "digest_list_ack { digest_list_ack { digest_id: 7 } }");
  expectError(primary, "other { type_url: 'any' }", Code::unimplemented_,
              "other { other { type_url: \"any\" } }");
  expectError(primary, "", Code::invalidArgument_, "other { other { } }");
  EXPECT_EQ(codeOf(primary.set(pipelineRequest())), Code::ok_) << "still the primary";
}

TEST_F(StreamTest, AFloodOfStreamsIsRefusedAndLeavesRoomForOthersWhenItIsOver) {
  std::vector<std::unique_ptr<Controller>> flood;
  std::size_t served = 0;
  std::size_t refused = 0;
  for (std::uint64_t id = 1; id <= P4rt::Arbitration::mostStreams + 20; ++id) {
    auto& controller = *flood.emplace_back(std::make_unique<Controller>(program_, Id{id}));
    const std::string standing = controller.claimAndHear();
    served += standing.starts_with("primary") ? 1U : 0U;
    refused += standing == "end 8" ? 1U : 0U;
  }
  EXPECT_EQ(served, P4rt::Arbitration::mostStreams);
  EXPECT_EQ(refused, 20U);
  flood.clear();
  std::string standing;
  for (int attempt = 0; attempt < 100 && !standing.starts_with("primary"); ++attempt) {
    Controller late{program_, {10'000}};
    standing = late.claimAndHear();
  }
  EXPECT_EQ(standing, "primary 10000");
}

TEST_F(StreamTest, AControllerThatTakesNothingIsCutOffAndTheOthersAreServed) {
  // It does not read its notices, and its system does not buffer many.
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  Controller deaf{program_, {1}, {}, arguments};
  EXPECT_EQ(deaf.claimAndHear(), "primary 1");
  // Each change of the primary's id is a notice to it.
  Controller lively{program_, {2}};
  const auto cutOff = [&] {
    Controller heir{program_, {1}};
    return heir.claimAndHear().starts_with("backup");  // the id of the deaf one is free
  };
  bool seen = false;
  for (std::uint64_t id = 2; id < 20'000 && !seen; ++id) {
    ASSERT_EQ(lively.claimAndHear(Id{id}), "primary " + std::to_string(id));
    seen = id % 500 == 0 && cutOff();
  }
  EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace P4rtTest
