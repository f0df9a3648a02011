// The service's side: results, entry errors, VRFs, time stamps, handles, counters, ports, ECMP rows.
#include <array>
#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Korm/Clock.h"
#include "platform/Korm/Exceptions.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/P4Runtime/HandleMgr.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/Types.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace P4Runtime {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

// What the service hears.
struct Result {
  std::uint64_t handle;
  ErrorCode code;
  std::string message;
  bool dependent;
  friend bool operator==(const Result&, const Result&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Result& result) {
    return out << result.handle << " " << result.code << " '" << result.message << "' "
               << result.dependent;
  }
};

class Service final : public Korm::Notifiee<const TransactionResult&> {
 public:
  explicit Service(BatchStatus& batch) { batch.resultNotifiees().attach(*this); }
  void onAttribute(const TransactionResult& result) override {
    if (const auto action = action_) {
      action(result.handle);
    }
    heard_.push_back({result.handle, result.code, std::string{result.message}, result.dependent});
  }
  void actionIs(std::function<void(EntryHandle)> action) { action_ = std::move(action); }
  std::vector<Result> take() { return std::exchange(heard_, {}); }

 private:
  std::function<void(EntryHandle)> action_;
  std::vector<Result> heard_;
};

class BatchStatusTest : public testing::Test {
 protected:
  Korm::Ptr<BatchStatus> batch_ = Korm::makePtr<BatchStatus>();
  Service service_{*batch_};
};

TEST_F(BatchStatusTest, KeepsTheLastResultOfEachOpenEntryAndTellsTheServiceOfEach) {
  const auto entry = batch_->batchStatusEntryIs(5);
  EXPECT_EQ(entry->handle(), EntryHandle{5});
  EXPECT_EQ(entry->errorCode(), ErrorCode::success_);
  batch_->markTransaction(5, ErrorCode::hardwareError_, "broken");
  EXPECT_EQ(entry->errorCode(), ErrorCode::hardwareError_);
  EXPECT_EQ(entry->message(), "broken");
  batch_->markTransactionSucceeded(5);
  EXPECT_EQ(batch_->batchStatusEntry(5), entry);
  EXPECT_EQ(entry->errorCode(), ErrorCode::success_);
  EXPECT_EQ(entry->message(), "");
  EXPECT_THAT(service_.take(), ElementsAre(Result{5, ErrorCode::hardwareError_, "broken", false},
                                           Result{5, ErrorCode::success_, "", false}));
}

TEST_F(BatchStatusTest, TellsOfResultsForEntriesThatItDoesNotHold) {
  batch_->markTransactionSucceeded(0);
  batch_->markTransaction(9, ErrorCode::notFound_, "late");
  EXPECT_EQ(batch_->entries(), 0U);
  EXPECT_EQ(batch_->batchStatusEntry(9), nullptr);
  EXPECT_THAT(service_.take(), ElementsAre(Result{0, ErrorCode::success_, "", false},
                                           Result{9, ErrorCode::notFound_, "late", false}));
}

TEST_F(BatchStatusTest, StartsAnEntryAgainThatIsOpenedAgain) {
  const auto before = batch_->batchStatusEntryIs(5);
  const auto root = batch_->aggregatorStatus().rootStatusEntry(5);
  batch_->markTransaction(5, ErrorCode::notAllowed_, "no");
  const auto again = batch_->batchStatusEntryIs(5);
  EXPECT_EQ(again->errorCode(), ErrorCode::success_);
  EXPECT_EQ(again->message(), "");
  EXPECT_EQ(batch_->entries(), 1U);
  EXPECT_NE(batch_->aggregatorStatus().rootStatusEntry(5), root);
  EXPECT_EQ(before->message(), "no") << "whoever holds the old entry may still read it";
}

TEST_F(BatchStatusTest, HasRootEntriesForTheEntriesThatItHoldsAndNoOther) {
  AggregatorStatus& roots = batch_->aggregatorStatus();
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr);
  batch_->batchStatusEntryIs(5);
  const auto root = roots.rootStatusEntry(5);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->handle(), EntryHandle{5});
  EXPECT_EQ(roots.rootStatusEntry(5), root);
  batch_->batchStatusEntryDel(5);
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr);
  batch_->batchStatusEntryIs(5);
  EXPECT_NE(roots.rootStatusEntry(5), root);
  batch_->batchStatusEntryDelAll();
  EXPECT_EQ(batch_->entries(), 0U);
  EXPECT_EQ(roots.rootStatusEntry(5), nullptr);
}

TEST_F(BatchStatusTest, ADependentResultCompletesItsEntryThroughTheRoot) {
  batch_->batchStatusEntryIs(5);
  const auto root = batch_->aggregatorStatus().rootStatusEntry(5);
  root->dependentEntryHandleIs(5, true);
  root->dependentEntryHandleIs(5, true);
  root->dependentEntryHandleIs(6, true);
  EXPECT_THAT(root->dependentEntryHandles(), ElementsAre(EntryHandle{5}, EntryHandle{6}));
  EXPECT_EQ(root->dependentEntryStatus(), nullptr);
  const auto status = batch_->batchStatusEntry(5);
  status->errorCodeIs(ErrorCode::hardwareResourceExhausted_);
  status->messageIs("full");
  root->dependentEntryStatusIs(status);
  EXPECT_THAT(root->dependentEntryHandles(), ElementsAre(EntryHandle{6}));
  EXPECT_EQ(root->dependentEntryStatus(), status);
  EXPECT_EQ(status->message(), "full");
  root->dependentEntryHandleIs(6, false);
  EXPECT_TRUE(root->dependentEntryHandles().empty());
  EXPECT_THAT(service_.take(),
              ElementsAre(Result{5, ErrorCode::hardwareResourceExhausted_, "full", true}));
}

TEST_F(BatchStatusTest, TheServiceMayCloseOrMarkTheEntryThatItHearsOf) {
  const std::string message(64, 'm');
  Service second{*batch_};
  service_.actionIs([this](EntryHandle handle) {
    service_.actionIs({});
    batch_->markTransaction(handle, ErrorCode::notFound_, "x");
    batch_->batchStatusEntryDel(handle);
  });
  const auto root = [&] {
    batch_->batchStatusEntryIs(5)->messageIs(message);
    return batch_->aggregatorStatus().rootStatusEntry(5);
  }();
  root->dependentEntryStatusIs(batch_->batchStatusEntry(5));
  EXPECT_EQ(batch_->entries(), 0U);
  EXPECT_THAT(second.take(), ElementsAre(Result{5, ErrorCode::notFound_, "x", false},
                                         Result{5, ErrorCode::success_, message, true}));
}

// Entry errors.

class Validation : public BatchStatusTest {
 protected:
  DefaultValidationHelper helper_{batch_};

  // What comes of the check: 0, or the code that is recorded once it is reported.
  template <class Check>
  std::uint32_t recorded(Check check) {
    const auto entry = batch_->batchStatusEntryIs(7);
    try {
      check();
      return 0;
    } catch (const P4RuntimeExceptionBase& error) {
      EXPECT_EQ(entry->errorCode(), ErrorCode::success_) << "recorded before it was reported";
      error.report();
      EXPECT_EQ(entry->message(), error.what());
      message_ = error.what();
    }
    return static_cast<std::uint32_t>(entry->errorCode());
  }
  std::string message_;
};

TEST_F(Validation, AcceptsPortIdsThatAControllerMayUse) {
  const auto codeFor = [this](P4PortId port) {
    return recorded([&] { helper_.validatePortId(7, port, "ingress port-id"); });
  };
  EXPECT_EQ(codeFor(0), 15U);
  EXPECT_THAT(message_, AllOf(HasSubstr("ingress port-id"), HasSubstr("port id 0 ")));
  EXPECT_EQ(codeFor(1), 0U);
  EXPECT_EQ(codeFor(0xFFFFFEFF), 0U);
  EXPECT_EQ(codeFor(0xFFFFFF00), 15U);
  EXPECT_EQ(codeFor(0xFFFFFFFF), 15U);
}

TEST_F(Validation, AcceptsPortMasksThatAreAllOnes) {
  const auto codeFor = [this](P4PortId mask) {
    return recorded([&] { helper_.validatePortIdMask(7, mask, "egress port-id"); });
  };
  EXPECT_EQ(codeFor(0xFFFFFFFF), 0U);
  EXPECT_EQ(codeFor(0xFFFFFFFE), 15U);
  EXPECT_THAT(message_, HasSubstr("egress port-id"));
  EXPECT_EQ(codeFor(0x7FFFFFFF), 15U);
  EXPECT_EQ(codeFor(0), 15U);
}

TEST_F(Validation, RaisesErrorsThatSayWhatIsWrongAndRecordThemselves) {
  EXPECT_EQ(recorded([&] { helper_.throwUndefinedEntryBehavior(7, "vlan", "vrf"); }), 13U);
  EXPECT_THAT(message_, AllOf(HasSubstr("vlan"), HasSubstr("vrf")));
  EXPECT_EQ(recorded([&] { helper_.throwNotAllowedEntryBehavior(7, "it is late", "ttl"); }), 14U);
  EXPECT_THAT(message_, AllOf(HasSubstr("ttl"), HasSubstr("it is late")));
  EXPECT_EQ(
      recorded([&] { helper_.throwEntryErrorException(7, ErrorCode::invalidMask_, "just so"); }),
      17U);
  EXPECT_EQ(message_, "just so");
  EXPECT_THAT(service_.take().back(), (Result{7, ErrorCode::invalidMask_, "just so", false}));
}

TEST_F(Validation, AnErrorWithoutABatchStatusReportsToNobody) {
  const DefaultValidationHelper alone{nullptr};
  DefaultValidationHelper helper{nullptr};
  EXPECT_THROW(helper.throwEntryErrorException(7, ErrorCode::notFound_, "gone"),
               EntryErrorException);
  const EntryErrorException error{nullptr, 7, ErrorCode::notFound_, "gone"};
  error.report();
  EXPECT_EQ(error.handle(), EntryHandle{7});
  EXPECT_EQ(error.code(), ErrorCode::notFound_);
  EXPECT_TRUE(service_.take().empty());
}

TEST_F(Validation, AnErrorKeepsItsBatchStatusAlive) {
  auto batch = Korm::makePtr<BatchStatus>();
  const EntryErrorException error{batch, 7, ErrorCode::notFound_, "gone"};
  const BatchStatus& observed = *batch;
  batch = nullptr;
  error.report();
  EXPECT_EQ(observed.references(), 1U);
}

// Error codes and handles as text.

TEST(ErrorCodes, AreReadAsTheyArePrinted) {
  for (std::uint32_t number = 0; number <= 19; ++number) {
    const std::string text = errorCodeText(ErrorCode{number}) + "'}";
    auto current = text.begin();
    EXPECT_EQ(parseErrorCode(current, text.end()), ErrorCode{number});
    EXPECT_EQ(std::string(current, text.end()), "'}");
  }
  EXPECT_EQ(errorCodeText(ErrorCode::success_), "success");
  EXPECT_EQ(errorCodeText(ErrorCode::invalidArgument_), "invalidArgument");
  EXPECT_EQ(errorCodeText(ErrorCode{2}), "2");
  EXPECT_EQ(errorCodeText(ErrorCode{4'000'000'000}), "4000000000");
}

TEST(ErrorCodes, RefuseEveryOtherText) {
  for (const std::string text : {"", "Success", "successful", "0", "15", "20", "002", "-2", " 2",
                                 "4294967298", "hardware error"}) {
    auto current = text.begin();
    EXPECT_THROW((void)parseErrorCode(current, text.end()), Korm::RangeException) << text;
    EXPECT_EQ(current, text.begin());
  }
}

TEST(EntryHandles, StandForTheirNumbers) {
  const EntryHandle handle{UINT64_MAX};
  EXPECT_EQ(std::uint64_t{handle}, UINT64_MAX);
  EXPECT_EQ(EntryHandle{}, EntryHandle{0});
  std::ostringstream out;
  out << handle;
  EXPECT_EQ(out.str(), "18446744073709551615");
  EXPECT_EQ(EntryHandle{5}.hash(1), EntryHandle{5}.hash(1));
  EXPECT_NE(EntryHandle{5}.hash(0), EntryHandle{5}.hash(1));
}

// VRFs.

TEST(VrfIdCollection, CountsAndStopsAtZero) {
  const auto vrfs = Korm::makePtr<VrfIdCollection>();
  EXPECT_EQ(vrfs->vrfIdRefCount(5), std::nullopt);
  EXPECT_EQ(vrfs->vrfIdRefCountInc(5, 2), 2U);
  EXPECT_EQ(vrfs->vrfIdRefCountInc(5, 1), 3U);
  EXPECT_EQ(vrfs->vrfIdRefCountDec(5, 2), 1U);
  EXPECT_EQ(vrfs->vrfIdRefCountDec(5, 2), 0U);
  EXPECT_EQ(vrfs->vrfIdRefCount(5), std::optional{0U});
  EXPECT_EQ(vrfs->vrfIdRefCountDec(6, 1), 0U);
  vrfs->vrfIdRefCountDel(5);
  EXPECT_EQ(vrfs->vrfIdRefCount(5), std::nullopt);
}

TEST(VrfIdCollection, RecordsCreatorsAndDeletorsApartAndTellsOfThem) {
  const auto vrfs = Korm::makePtr<VrfIdCollection>();
  struct Listener {
    void changed(const VrfIdCollection::VrfId& vrf) { heard.push_back(vrf); }
    std::vector<std::uint32_t> heard;
  } creators;
  const Korm::MemberNotifiee<Listener, &Listener::changed, const VrfIdCollection::VrfId&> reactor{
      creators, vrfs->creators().notifiees()};
  EXPECT_EQ(vrfs->vrfCreatorRootHandle(5), std::nullopt);
  vrfs->vrfCreatorRootHandleIs(5, 1);
  vrfs->vrfDeletorRootHandleIs(5, 2);
  EXPECT_EQ(vrfs->vrfCreatorRootHandle(5), EntryHandle{1});
  EXPECT_EQ(vrfs->vrfDeletorRootHandle(5), EntryHandle{2});
  vrfs->vrfCreatorRootHandleIs(5, 3);
  vrfs->vrfCreatorRootHandleDel(5);
  vrfs->vrfCreatorRootHandleDel(5);
  EXPECT_EQ(vrfs->vrfCreatorRootHandle(5), std::nullopt);
  EXPECT_EQ(vrfs->vrfDeletorRootHandle(5), EntryHandle{2});
  EXPECT_THAT(creators.heard, ElementsAre(5, 5, 5));
  vrfs->vrfIdRefCountInc(9, 1);
  vrfs->delAll();
  EXPECT_TRUE(vrfs->refCounts().empty() && vrfs->creators().empty() && vrfs->deletors().empty());
}

// Time stamps.

TEST(Telemetry, KeepsTheNewestStampsWithTheirTimes) {
  static double now = 0;
  Korm::clockIs([] { return now; });
  const auto telemetry = Korm::makePtr<Telemetry>();
  using Type = TelemetryTimestampType;
  EXPECT_FALSE(telemetry->newest(1, Type::configured_));
  now = 10;
  telemetry->newTransactionTimestamp(1, Type::configured_);
  now = 11;
  telemetry->newTransactionTimestamp(1, Type::configured_);
  telemetry->newTransactionTimestamp(1, Type::programmed_);
  telemetry->newTransactionTimestamp(2, Type::received_);
  EXPECT_EQ(telemetry->newest(1, Type::configured_)->time, 11);
  EXPECT_FALSE(telemetry->newest(2, Type::configured_));
  for (std::size_t stamp = 4; stamp < Telemetry::capacity + 2; ++stamp) {
    EXPECT_TRUE(telemetry->newest(1, Type::programmed_));
    telemetry->newTransactionTimestamp(3, Type::stored_);
  }
  EXPECT_FALSE(telemetry->newest(1, Type::configured_)) << "the oldest make room";
  EXPECT_TRUE(telemetry->newest(1, Type::programmed_));
  telemetry->newTransactionTimestamp(3, Type::stored_);
  EXPECT_FALSE(telemetry->newest(1, Type::programmed_));
  EXPECT_TRUE(telemetry->newest(2, Type::received_));
  EXPECT_EQ(telemetry->total(), Telemetry::capacity + 3);
  Korm::clockIs(nullptr);
}

// Registries.

TEST(P4HandleMgr, MapsGroupsAndMembersApart) {
  const auto handles = Korm::makePtr<P4HandleMgr>();
  EXPECT_EQ(handles->getGroupHandleFromGroupId(3), GroupHandle::none_);
  EXPECT_EQ(handles->getEntryHandleFromMemberId(3), EntryHandle{});
  handles->groupIs(3, 30);
  handles->memberIs(3, 31);
  EXPECT_EQ(P4HandleMgr::groupHandleToEntryHandle(handles->getGroupHandleFromGroupId(3)),
            EntryHandle{30});
  EXPECT_EQ(handles->getEntryHandleFromMemberId(3), EntryHandle{31});
  handles->groupIs(3, 32);
  EXPECT_EQ(handles->getGroupHandleFromGroupId(3), GroupHandle{32});
  handles->groupDel(3);
  handles->groupDel(3);
  EXPECT_EQ(handles->getGroupHandleFromGroupId(3), GroupHandle::none_);
  EXPECT_EQ(handles->getEntryHandleFromMemberId(3), EntryHandle{31});
  handles->memberDel(3);
  EXPECT_EQ(handles->getEntryHandleFromMemberId(3), EntryHandle{});
}

TEST(P4RuntimeCounterHelper, KeepsOneReaderPerCounterUntilItIsRemoved) {
  struct Fixed final : CounterImpl {
    [[nodiscard]] P4CounterData getCounters(std::uint64_t entryId) const override {
      return {.packets = entryId, .bytes = entryId * 64};
    }
  };
  const auto helper = Korm::makePtr<P4RuntimeCounterHelper>();
  const Korm::Ptr<CounterImpl> reader = Korm::makePtr<Fixed>();
  EXPECT_EQ(helper->counterImplMap(0), nullptr);
  helper->counterImplMapIs(0, reader);
  EXPECT_EQ(helper->counterImplMap(0), reader);
  EXPECT_EQ(helper->counterImplMap(0)->getCounters(2), (P4CounterData{0, 2, 128}));
  EXPECT_EQ(helper->counterImplMap(1), nullptr);
  helper->counterImplMapIs(0, nullptr);
  helper->counterImplMapIs(0, nullptr);
  EXPECT_EQ(helper->counterImplMap(0), nullptr);
  EXPECT_EQ(reader->references(), 1U);
}

TEST(PortMappingStatus, GivesTheEmptyInterfaceForAPortThatIsNotMapped) {
  const auto ports = Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  EXPECT_TRUE(ports->p4PortIdToIntfId(1).empty());
  ports->portIs(1, Interface::IntfId{"Ethernet1"});
  EXPECT_EQ(ports->p4PortIdToIntfId(1).name(), "Ethernet1");
  ports->portIs(1, Interface::IntfId{"Ethernet2"});
  EXPECT_EQ(ports->p4PortIdToIntfId(1).name(), "Ethernet2");
  EXPECT_TRUE(ports->portDel(1));
  EXPECT_FALSE(ports->portDel(1));
  EXPECT_TRUE(ports->p4PortIdToIntfId(1).empty());
}

TEST(IntfId, HoldsNamesUpToItsLengthAndShortensThem) {
  using Interface::IntfId;
  const std::string longest(IntfId::maxLength, 'e');
  EXPECT_EQ(IntfId{longest}.name(), longest);
  EXPECT_THROW(IntfId{longest + "e"}, Korm::RangeException);
  EXPECT_THROW(IntfId{std::string(256 + 3, 'e')}, Korm::RangeException);
  EXPECT_EQ(IntfId{"Ethernet12"}.shortName().name(), "Et12");
  EXPECT_EQ(IntfId{"Ethernet3/1.5"}.shortName().name(), "Et3/1.5");
  EXPECT_EQ(IntfId{"Port-Channel7"}.shortName().name(), "Po7");
  for (const char* name : {"", "e1", "Et1", "Cpu", "1"}) {
    EXPECT_EQ(IntfId{name}.shortName().name(), name);
  }
  EXPECT_EQ(IntfId{}, IntfId{""});
  EXPECT_TRUE(IntfId{}.empty());
  EXPECT_NE(IntfId{"Ethernet1"}, IntfId{"Ethernet11"});
}

// ECMP and encapsulation rows.

TEST(Ecmp, LinkLayerWordsHoldAnAddressMostSignificantFirst) {
  const auto address = Korm::parseEthAddr("02:00:ab:0c:ff:05").value();
  const P4RuntimeRouting::LinkLayerWords words{0x0200, 0xAB0C, 0xFF05};
  EXPECT_EQ(P4RuntimeRouting::toLinkLayerWords(address), words);
  EXPECT_EQ(P4RuntimeRouting::toEthAddr(words), address);
}

TEST(Ecmp, TablesKeepTheirRowsByIdAndRefuseDamagedLists) {
  const auto groups = Korm::makePtr<P4RuntimeRouting::EcmpGroup>("ecmpGroup");
  P4RuntimeRouting::EcmpMemberList group;
  group.groupId = 3;
  group.membersIs(std::vector<MemberOrGroupId>{5, 6});
  groups->entryIs(group);
  group.groupId = 4;
  group.lists.storedCountsIs(P4RuntimeRouting::maxMembers + 1, 0);
  groups->entryIs(group);
  EXPECT_THAT(groups->entry(3)->memberIds(), ElementsAre(5, 6));
  EXPECT_THROW((void)groups->entry(4)->memberIds(), Korm::RangeException);
  const auto members = Korm::makePtr<P4RuntimeRouting::EcmpMember>("ecmpMember");
  P4RuntimeRouting::NexthopInfo member;
  member.memberId = 5;
  member.encapId = 65535;
  members->entryIs(member);
  EXPECT_EQ(members->entry(5)->encapId, 65535);
  const auto encaps = Korm::makePtr<NexthopGroup::L2NexthopGroupEncapTable>("encaps");
  NexthopGroup::EncapEntry encap;
  encap.encapId = 65535;
  encap.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
  encaps->entryIs(encap);
  EXPECT_EQ(encaps->entry(65535)->encapType(), NexthopGroup::L2NhgEncapType::encapIpInIp_);
}

}  // namespace
}  // namespace P4Runtime
