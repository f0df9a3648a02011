// Clients that disconnect, send too much or do not read.
#include "p4rt/server/Server.h"
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

class RobustTest : public testing::Test {
 protected:
  RobustTest() { controller_.takeOver(); }

  Program program_;
  Controller controller_{program_};
};

TEST_F(RobustTest, ANewPrimaryIsToldWhenTheWritesOfTheOldOneAreThroughAlsoOfOneThatIsGone) {
  program_.automaticIs(false);
  Controller heir{program_, {3}};
  {
    Controller gone{program_, {2}};
    EXPECT_EQ(gone.claimAndHear(), "primary 2");
    EXPECT_EQ(controller_.standing(), "backup of 2");
    grpc::ClientContext context;
    p4::v1::WriteResponse response;
    std::promise<grpc::Status> done;
    const auto request = gone.writeRequest(flows(Update::INSERT, 1, 100));
    gone.stub().async()->Write(&context, &request, &response,
                               [&](const grpc::Status& status) { done.set_value(status); });
    program_.awaitEntries(100);
    heir.claim();
    EXPECT_EQ(gone.standing(), "backup of 3");
    for (Controller* const one : {&gone, &heir}) {
      EXPECT_EQ(codeOf(one->write(flows(Update::INSERT, 200, 1))), Code::permissionDenied_);
    }
    context.TryCancel();
    EXPECT_EQ(codeOf(done.get_future().get()), Code::cancelled_);
  }
  program_.automaticIs(true);
  EXPECT_EQ(heir.standing(), "primary 3");
  EXPECT_EQ(codeOf(heir.write(flows(Update::MODIFY, 1, 100))), Code::ok_);
  EXPECT_EQ(codeOf(heir.write(flows(Update::DELETE, 1, 100))), Code::ok_);
  EXPECT_THAT(program_.type("audit"), HasSubstr("\"faults\":0,\"rows\":0"));
}

TEST_F(RobustTest, AReaderThatStopsHalfwayHoldsNobodyUp) {
  constexpr int many = 20'000;
  for (int first = 0; first < many; first += 1000) {
    ASSERT_EQ(codeOf(controller_.write(flows(Update::INSERT, first, 1000))), Code::ok_);
  }
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<std::unique_ptr<grpc::ClientReader<p4::v1::ReadResponse>>> readers;
  Controller lazy{program_, {9}};
  for (std::size_t reader = 0; reader + 1 < P4rt::RuntimeService::mostReads; ++reader) {
    contexts.push_back(newContext());
    readers.push_back(lazy.stub().Read(contexts.back().get(), readRequest()));
    p4::v1::ReadResponse first;
    ASSERT_TRUE(readers.back()->Read(&first));
    EXPECT_EQ(first.entities_size(), 256);
  }
  EXPECT_EQ(codeOf(controller_.write(flows(Update::DELETE, 0, 1000))), Code::ok_);
  EXPECT_EQ(controller_.entries().size(), many - 1000U);
  // A reader that goes on gets everything as it was when it began.
  p4::v1::ReadResponse next;
  int count = 256;
  while (readers.front()->Read(&next)) {
    count += next.entities_size();
  }
  EXPECT_EQ(count, many);
  for (const auto& context : contexts) {
    context->TryCancel();
  }
}

TEST_F(RobustTest, AMessageThatIsTooLongIsRefusedAndALongOneIsNot) {
  const auto withMetadata = [&](std::size_t size) {
    Update update = flow(Update::INSERT, 1);
    update.mutable_entity()->mutable_table_entry()->set_metadata(std::string(size, 'x'));
    return controller_.write({update});
  };
  const grpc::Status tooLong = withMetadata(P4rt::Server::longestMessage);
  EXPECT_EQ(codeOf(tooLong), Code::resourceExhausted_);
  EXPECT_THAT(tooLong.error_message(), HasSubstr("larger than max"));
  EXPECT_NE(codeOf(withMetadata(5 << 20)), Code::resourceExhausted_);
  EXPECT_EQ(controller_.claimAndHear(), "primary 1") << "the connection lives";
}

TEST_F(RobustTest, LongEntriesAreReadInMessagesThatAClientTakes) {
  auto updates = flows(Update::INSERT, 0, 300);
  std::size_t size = 20'000;
  for (Update& update : updates) {
    update.mutable_entity()->mutable_table_entry()->set_metadata(std::string(++size, 'x'));
  }
  ASSERT_EQ(codeOf(controller_.write(updates)), Code::ok_);
  std::multiset<std::size_t> sizes;
  for (const p4::v1::TableEntry& entry : controller_.entries()) {
    sizes.insert(entry.metadata().size());
  }
  EXPECT_EQ(sizes.size(), updates.size());
  EXPECT_EQ(std::set(sizes.begin(), sizes.end()).size(), updates.size()) << "each once";
}

}  // namespace
}  // namespace P4rtTest
