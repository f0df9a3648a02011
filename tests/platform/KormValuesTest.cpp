// The framework's values: addresses, limits, deferred work.
#include "platform/Bridging/Bridging.h"
#include "platform/Korm/Activity.h"
#include "platform/Korm/Address.h"
#include "platform/Korm/BoundedValue.h"
#include "platform/Korm/Exceptions.h"
#include "platform/Korm/PodArray.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/P4RuntimeRouting/Ecmp.h"
#include "tests/Testing.h"

namespace Korm {
namespace {

using namespace TestSupport;

TEST(Address, OfEthernetIsReadInEitherCaseAndNoOtherForm) {
  const EthAddr address{{0x02, 0x00, 0xAB, 0x0C, 0xFF, 0x05}};
  EXPECT_EQ(address.text(), "02:00:ab:0c:ff:05");
  EXPECT_EQ(parseEthAddr("02:00:AB:0C:FF:05"), address);
  for (const char* text : {"", "02:00:ab:0c:ff", "02:00:ab:0c:ff:5", "2:00:ab:0c:ff:005",
                           "02-00-ab-0c-ff-05", "02:00:ab:0c:ff:0g", "02:00:ab:0c:ff:05 ",
                           "02:00:ab:0c:ff:05:06", "+2:00:ab:0c:ff:05", "0x:00:ab:0c:ff:05"}) {
    EXPECT_EQ(parseEthAddr(text), std::nullopt) << text;
  }
}

TEST(Address, OfTheInternetIsReadAsItIsPrintedAndRefusesWhatIsNone) {
  for (const char* text :
       {"0.0.0.0", "10.1.0.255", "255.255.255.255", "::", "::1", "::1:2", "1::", "2001:db8::1",
        "fe80::1:0:0:1", "1:0:0:2::3", "1:2:3:4:5:6:7:8", "1:0:2:3:4:5:6:7", "1::2:0:0:3:4"}) {
    const auto address = parseIpAddr(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(address->text(), text);
  }
  EXPECT_EQ(parseIpAddr("2001:0DB8:0:0:0:0:0:1")->text(), "2001:db8::1");
  EXPECT_EQ(parseIpAddr("::ffff:192.0.2.1")->family(), AddressFamily::ipv6_);
  for (const char* text :
       {"",          "-",         "10.1.0",    "10.1.0.256",    "10.1.0.1.2",        "010.1.0.1",
        "10.1.0.01", "10.1.0.1 ", " 10.1.0.1", "10.1.0.1/8",    "0x0a.1.0.1",        "10.1..1",
        ":",         ":::",       "1::2::3",   "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "12345::",
        "g::",       "::1%lo"}) {
    EXPECT_EQ(parseIpAddr(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseIpAddr({"10.1.0.1\0", 9}), std::nullopt);
}

TEST(Address, HasMasksOfEveryLengthOfItsFamilyAndNoOther) {
  using enum AddressFamily;
  EXPECT_EQ(IpAddr::prefixMask(ipv4_, 0).text(), "0.0.0.0");
  EXPECT_EQ(IpAddr::prefixMask(ipv4_, 17).text(), "255.255.128.0");
  EXPECT_EQ(IpAddr::prefixMask(ipv4_, 32).text(), "255.255.255.255");
  EXPECT_EQ(IpAddr::prefixMask(ipv6_, 33).text(), "ffff:ffff:8000::");
  EXPECT_EQ(IpAddr::prefixMask(none_, 0).text(), "-");
  EXPECT_EQ(messageOf<RangeException>([] { (void)IpAddr::prefixMask(ipv4_, 33); }),
            "IpAddr::prefixMask length 33 > 32 not allowed");
  EXPECT_THROW((void)IpAddr::prefixMask(ipv6_, 129), RangeException);
  EXPECT_THROW((void)IpAddr::prefixMask(none_, 1), RangeException);
}

// Limits.

template <class Bounded>
void expectBounds(long long least, long long most, const std::string& message) {
  for (const long long value : {least, most}) {
    EXPECT_EQ(static_cast<long long>(Bounded{value}.value()), value);
  }
  // From integers that are wider than its own, of either sign.
  for (const long long value : {least - 1, most + 1, most + 65'536LL * 65'536 + 1, LLONG_MIN}) {
    EXPECT_EQ(messageOf<RangeException>([&] { (void)Bounded{value}; }), message) << value;
  }
  EXPECT_EQ(messageOf<RangeException>([&] { (void)Bounded{UINT64_MAX}; }), message);
}

TEST(BoundedValue, AcceptsItsBoundsAndRefusesWhatLiesBehindThem) {
  expectBounds<Bridging::VlanIdOrNone>(0, 4094, "VlanIdOrNone::value > 4094 not allowed");
  expectBounds<Bridging::VlanIdOrAnyOrNone>(0, 4095, "VlanIdOrAnyOrNone::value > 4095 not allowed");
  expectBounds<OpenFlowTable::TrafficClass>(
      0, 16, "TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed");
  expectBounds<OpenFlowTable::Priority>(-1, 65536,
                                        "Priority::value < -1 or > Priority::max not allowed");
  expectBounds<P4RuntimeRouting::MemberIndex>(
      0, 1023, "MemberIndex::value < MemberIndex::min or > MemberIndex::max not allowed");
}

// Work that is put off.

TEST(Activity, RunsWorkInTheOrderOfItsDeferralAndKeepsTheRestWhenWorkThrows) {
  Activity queue;
  std::string ran;
  queue.defer([&] {
    ran += 'a';
    queue.defer([&] { ran += 'c'; });
    throw 1;
  });
  queue.defer([&] { ran += 'b'; });
  EXPECT_EQ(ran, "");
  EXPECT_THROW(queue.run(), int);
  EXPECT_EQ(ran, "a");
  EXPECT_FALSE(queue.idle());
  queue.run();
  EXPECT_EQ(ran, "abc");
  EXPECT_TRUE(queue.idle());
}

}  // namespace
}  // namespace Korm
