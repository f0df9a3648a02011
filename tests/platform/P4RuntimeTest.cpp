// The service's side: results and interfaces. Which ports are allowed is in tests/soak.

#include "platform/Interface/Interface.h"
#include "platform/Korm/Exceptions.h"
#include "tests/Heard.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class BatchStatusTest : public testing::Test {
 protected:
  Korm::Ptr<BatchStatus> batch_ = Korm::makePtr<BatchStatus>();
  Results service_{*batch_};
};

TEST_F(BatchStatusTest, AnEntryThatIsOpenedAgainOrClosedLosesItsResultAndItsRoot) {
  AggregatorStatus& roots = batch_->aggregatorStatus();
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr) << "there is no such entry";
  const auto before = batch_->batchStatusEntryIs(5);
  const auto root = roots.rootStatusEntry(5);
  EXPECT_EQ(roots.rootStatusEntry(5), root);
  batch_->markTransaction(5, ErrorCode::notAllowed_, "no");
  batch_->markTransaction(9, ErrorCode::notFound_, "late");
  EXPECT_EQ(batch_->batchStatusEntry(9), nullptr) << "it is told of, and not held";
  EXPECT_THAT(service_.takeEach(), ElementsAre("5 notAllowed: no", "9 notFound: late"));
  const auto again = batch_->batchStatusEntryIs(5);
  EXPECT_EQ(again->errorCode(), ErrorCode::success_);
  EXPECT_EQ(again->message(), "");
  EXPECT_EQ(before->message(), "no") << "whoever holds the old entry may still read it";
  const auto rootAgain = roots.rootStatusEntry(5);
  EXPECT_NE(rootAgain, root);

  batch_->batchStatusEntryDel(5);
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr);
  batch_->batchStatusEntryIs(5);
  const auto last = roots.rootStatusEntry(5);
  EXPECT_NE(last, rootAgain);
  batch_->batchStatusEntryDelAll();
  EXPECT_EQ(last->references(), 1U) << "nobody else holds it any more";
  EXPECT_EQ(batch_->entries(), 0U);
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr);
}

TEST_F(BatchStatusTest, ADependentResultCompletesItsEntryThroughTheRoot) {
  batch_->batchStatusEntryIs(5);
  const auto root = batch_->aggregatorStatus().rootStatusEntry(5);
  root->dependentEntryHandleIs(5, true);
  root->dependentEntryHandleIs(5, true);
  root->dependentEntryHandleIs(6, true);
  const auto status = batch_->batchStatusEntry(5);
  status->errorCodeIs(ErrorCode::hardwareResourceExhausted_);
  status->messageIs("full");
  root->dependentEntryStatusIs(status);
  EXPECT_THAT(root->dependentEntryHandles(), ElementsAre(EntryHandle{6}));
  EXPECT_EQ(root->dependentEntryStatus(), status);
  EXPECT_THAT(service_.takeEach(), ElementsAre("dependent 5 hardwareResourceExhausted: full"));
}

TEST_F(BatchStatusTest, TheServiceMayCloseOrMarkTheEntryThatItHearsOf) {
  const std::string message(64, 'm');
  Results second{*batch_};
  service_.actionIs([this](const TransactionResult& result) {
    batch_->markTransaction(result.handle, ErrorCode::notFound_, "x");
    batch_->batchStatusEntryDel(result.handle);
  });
  const auto root = [&] {
    batch_->batchStatusEntryIs(5)->messageIs(message);
    return batch_->aggregatorStatus().rootStatusEntry(5);
  }();
  root->dependentEntryStatusIs(batch_->batchStatusEntry(5));
  EXPECT_EQ(batch_->entries(), 0U);
  EXPECT_THAT(second.takeEach(), ElementsAre("5 notFound: x", "dependent 5 success: " + message));
}

// Interfaces.

TEST(IntfId, HoldsNamesUpToItsLengthAndShortensThem) {
  using Interface::IntfId;
  const std::string longest(IntfId::maxLength, 'e');
  EXPECT_EQ(IntfId{longest}.name(), longest);
  EXPECT_THROW(IntfId{longest + "e"}, Korm::RangeException);
  EXPECT_THROW(IntfId{std::string(256 + 3, 'e')}, Korm::RangeException);
  EXPECT_EQ(IntfId{"Ethernet12"}.shortName().name(), "Et12");
  EXPECT_EQ(IntfId{"Ethernet3/1.5"}.shortName().name(), "Et3/1.5");
  for (const char* name : {"", "e1", "Et1", "Cpu", "1"}) {
    EXPECT_EQ(IntfId{name}.shortName().name(), name);
  }
}

}  // namespace
}  // namespace P4Runtime
