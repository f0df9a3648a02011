// Clients that go, send too much or take nothing.

#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4rt/server/TestServer.h"

namespace P4rtTest {
namespace {

using testing::HasSubstr;

class RobustTest : public testing::Test {
 protected:
  void SetUp() override {
    controller_.claim();
    ASSERT_EQ(controller_.standing(), "primary 1");
    ASSERT_EQ(codeOf(controller_.setPipeline()), Code::ok_);
  }

  TestServer server_{{.writeTimeout = std::chrono::milliseconds{300}}};
  Controller controller_{server_};
};

TEST_F(RobustTest, AControllerThatVanishesInTheMiddleOfAWriteLeavesTheSwitchInOrder) {
  server_.automaticIs(false);
  {
    Controller other{server_, {2}};
    other.claim();
    EXPECT_EQ(other.standing(), "primary 2");
    EXPECT_EQ(controller_.standing(), "backup of 2");
    grpc::ClientContext context;
    p4::v1::WriteResponse response;
    std::promise<grpc::Status> done;
    const auto request = other.writeRequest(flows(Update::INSERT, 1, 100));
    other.stub().async()->Write(&context, &request, &response,
                                [&](const grpc::Status& status) { done.set_value(status); });
    server_.awaitEntries(100);
    context.TryCancel();
    EXPECT_EQ(codeOf(done.get_future().get()), Code::cancelled_);
  }
  EXPECT_EQ(controller_.standing(), "no primary 2");
  controller_.claim(Id{2});
  server_.automaticIs(true);
  EXPECT_EQ(controller_.standing(), "primary 2");
  const auto request = [&](const std::vector<Update>& updates) {
    auto write = controller_.writeRequest(updates);
    write.mutable_election_id()->set_low(2);
    const auto context = newContext();
    p4::v1::WriteResponse response;
    return codeOf(controller_.stub().Write(context.get(), write, &response));
  };
  EXPECT_EQ(request(flows(Update::MODIFY, 1, 100)), Code::ok_);
  EXPECT_EQ(request(flows(Update::DELETE, 1, 100)), Code::ok_);
}

TEST_F(RobustTest, AReaderThatStopsHalfwayHoldsNobodyUp) {
  constexpr std::uint32_t many = 20'000;
  for (std::uint32_t first = 0; first < many; first += 1000) {
    ASSERT_EQ(codeOf(controller_.write(flows(Update::INSERT, first, 1000))), Code::ok_);
  }
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<std::unique_ptr<grpc::ClientReader<p4::v1::ReadResponse>>> readers;
  p4::v1::ReadRequest request;
  request.set_device_id(1);
  request.add_entities()->mutable_table_entry();
  Controller lazy{server_, {9}};
  for (std::size_t reader = 0; reader + 1 < P4rt::RuntimeService::mostReads; ++reader) {
    contexts.push_back(newContext());
    readers.push_back(lazy.stub().Read(contexts.back().get(), request));
    p4::v1::ReadResponse first;
    ASSERT_TRUE(readers.back()->Read(&first));
  }
  EXPECT_EQ(codeOf(controller_.write(flows(Update::DELETE, 0, 1000))), Code::ok_);
  EXPECT_EQ(controller_.entries(), many - 1000);
  // One that goes on has what it read for, all of it as it was then.
  p4::v1::ReadResponse next;
  std::size_t count = 256;
  while (readers.front()->Read(&next)) {
    count += static_cast<std::size_t>(next.entities_size());
  }
  EXPECT_EQ(count, many);
  for (const auto& context : contexts) {
    context->TryCancel();
  }
}

TEST_F(RobustTest, AMessageThatIsTooLongIsRefusedAndALongOneIsNot) {
  auto long1 = flow(Update::INSERT, 1);
  const auto withMetadata = [&](std::size_t size) {
    long1.mutable_entity()->mutable_table_entry()->set_metadata(std::string(size, 'x'));
    return controller_.write({long1});
  };
  const grpc::Status tooLong = withMetadata(P4rt::Server::longestMessage);
  EXPECT_EQ(codeOf(tooLong), Code::resourceExhausted_);
  EXPECT_THAT(tooLong.error_message(), HasSubstr("larger than max"));
  EXPECT_NE(codeOf(withMetadata(5 << 20)), Code::resourceExhausted_);
  controller_.claim();
  EXPECT_EQ(controller_.standing(), "primary 1") << "the connection lives";
}

TEST_F(RobustTest, LongEntriesAreReadInMessagesThatAClientTakes) {
  auto updates = flows(Update::INSERT, 0, 300);
  for (std::size_t at = 0; at < updates.size(); ++at) {
    updates[at].mutable_entity()->mutable_table_entry()->set_metadata(
        std::string(20'000 + at, 'x'));
  }
  ASSERT_EQ(codeOf(controller_.write(updates)), Code::ok_);
  std::vector<p4::v1::TableEntry> entries;
  EXPECT_EQ(codeOf(controller_.read(entries)), Code::ok_);
  std::set<std::size_t> sizes;
  for (const p4::v1::TableEntry& entry : entries) {
    sizes.insert(entry.metadata().size());
  }
  EXPECT_EQ(entries.size(), updates.size());
  EXPECT_EQ(sizes.size(), updates.size()) << "each once";
}

}  // namespace
}  // namespace P4rtTest
