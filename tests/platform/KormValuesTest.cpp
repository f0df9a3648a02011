// The framework's values: text forms, generic access, arrays in records, addresses, limits, failures, clock.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Bridging/Bridging.h"
#include "platform/Korm/Activity.h"
#include "platform/Korm/Address.h"
#include "platform/Korm/BoundedValue.h"
#include "platform/Korm/Clock.h"
#include "platform/Korm/Exceptions.h"
#include "platform/Korm/PodArray.h"
#include "platform/Korm/Strep.h"
#include "platform/OpenFlowTable/Types.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Korm {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

template <class Exception, class Action>
std::string messageOf(Action action) {
  try {
    action();
  } catch (const Exception& error) {
    EXPECT_EQ(typeid(error), typeid(Exception));
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

// Text forms.

class Reading {
 public:
  explicit Reading(std::string given) : text{std::move(given)} {}
  StrepReader operator()() { return {current, text.end()}; }
  [[nodiscard]] std::string rest() const { return {current, text.end()}; }
  std::string text;
  std::string::const_iterator current = text.begin();
};

TEST(Strep, ReadsPiecesOneAfterAnother) {
  Reading reading{"{a: 18446744073709551615, b: -5, c: True, d: False, e: x&y}"};
  auto reader = reading();
  reader.literal("{a: ");
  EXPECT_EQ(reader.unsignedAttribute("a"), UINT64_MAX);
  EXPECT_FALSE(reader.maybeLiteral(", x"));
  EXPECT_TRUE(reader.maybeLiteral(", b: "));
  EXPECT_EQ(reader.signedAttribute("b", -5, -5), -5);
  reader.literal(", c: ");
  EXPECT_TRUE(reader.boolAttribute("c"));
  reader.literal(", d: ");
  EXPECT_FALSE(reader.boolAttribute("d"));
  EXPECT_EQ(reader.until("&"), ", e: x");
  EXPECT_EQ(reader.rest(), "&y}");
  EXPECT_EQ(reader.until("#"), "&y}");
  EXPECT_TRUE(reader.atEnd());
  EXPECT_EQ(reader.until("#"), "");
}

TEST(Strep, RefusesEverySpellingOfANumberButItsOwn) {
  for (const char* text : {"", "x", "+1", "-1", "01", "00", " 1", "18446744073709551616", "1e3"}) {
    Reading reading{text};
    if (std::string_view{text} == "1e3") {  // a number, with something behind it
      EXPECT_EQ(reading().unsignedAttribute("n"), 1U);
      EXPECT_EQ(reading.rest(), "e3");
      continue;
    }
    EXPECT_THROW((void)reading().unsignedAttribute("n"), DeserializationException) << text;
    EXPECT_EQ(reading.rest(), text) << "a refused text is not passed over";
  }
  for (const char* text : {"", "-", "-0", "--1", "1-", "+1", "007", "9223372036854775808"}) {
    Reading reading{text};
    EXPECT_THROW((void)reading().signedAttribute("n", INT64_MIN, INT64_MAX),
                 DeserializationException)
        << text;
  }
  for (const char* text : {"", "true", "TRUE", "1", "Tru"}) {
    EXPECT_THROW((void)Reading{text}().boolAttribute("b"), DeserializationException) << text;
  }
}

TEST(Strep, HoldsNumbersToTheRangeOfTheirAttribute) {
  EXPECT_EQ(Reading{"255"}().unsignedAttribute("n", 255), 255U);
  EXPECT_THROW((void)Reading{"256"}().unsignedAttribute("n", 255), DeserializationException);
  EXPECT_EQ(Reading{"-2"}().signedAttribute("n", -2, 3), -2);
  EXPECT_EQ(Reading{"3"}().signedAttribute("n", -2, 3), 3);
  EXPECT_THROW((void)Reading{"-3"}().signedAttribute("n", -2, 3), DeserializationException);
  EXPECT_THROW((void)Reading{"4"}().signedAttribute("n", -2, 3), DeserializationException);
  EXPECT_EQ(Reading{std::to_string(INT64_MIN)}().signedAttribute("n", INT64_MIN, 0), INT64_MIN);
}

TEST(Strep, SaysWhereWhatWasExpectedAndWhatWasFound) {
  Reading reading{"{a: 7}"};
  auto reader = reading();
  reader.literal("{");
  EXPECT_EQ(messageOf<ParseException>([&] { reader.literal("b: "); }),
            "offset 1: expected 'b: ', found 'a: 7}'");
  reader.literal("a: ");
  EXPECT_EQ(messageOf<DeserializationException>([&] { (void)reader.unsignedAttribute("a", 6); }),
            "attribute 'a': expected an unsigned number up to 6 at offset 4, found '7}'");
  EXPECT_EQ(messageOf<DeserializationException>([&] { (void)reader.signedAttribute("a", -1, 6); }),
            "attribute 'a': expected a number from -1 to 6 at offset 4, found '7}'");
  const std::string longText(100, 'z');
  EXPECT_EQ(messageOf<ParseException>([&] { Reading{longText}().fail("less"); }),
            "offset 0: expected less, found '" + longText.substr(0, 40) + "'");
}

TEST(Strep, NamesTheAttributeWhoseTypeRefusesTheValue) {
  Reading reading{"4095"};
  try {
    auto reader = reading();
    reader.attribute("vlan", [](auto& current, auto end) {
      StrepReader inner{current, end};
      return Bridging::VlanIdOrNone{inner.unsignedAttribute("value")};
    });
    ADD_FAILURE() << "nothing was thrown";
  } catch (const DeserializationException& error) {
    EXPECT_EQ(error.attribute(), "vlan");
    EXPECT_STREQ(error.what(), "attribute 'vlan': VlanIdOrNone::value > 4094 not allowed");
  }
}

TEST(Strep, PrintsWhatItReads) {
  EXPECT_EQ(strep(true), "True");
  EXPECT_EQ(strep(false), "False");
  EXPECT_EQ(strep(std::uint8_t{65}), "65");
  EXPECT_EQ(strep(std::int8_t{-1}), "-1");
  EXPECT_EQ(strep(UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(valueToStrep(Bridging::VlanIdOrNone{12}), "12");
  EXPECT_EQ(valueToStrep(std::uint16_t{7}), "7");
}

// A value type with generic access.
struct Point {
  Point() = default;
  Point(std::string::const_iterator& current, std::string::const_iterator end) {
    StrepReader reader{current, end};
    x = reader.signedAttribute("x", -9, 9);
    reader.literal(",");
    visible = reader.boolAttribute("visible");
  }
  [[nodiscard]] std::string valueToStrep() const {
    return Korm::strep(x) + "," + Korm::strep(visible);
  }
  static std::span<const GenericAttribute<Point>> genericAttributes() {
    static constexpr std::array<GenericAttribute<Point>, 2> attributes{{
        {"x", [](const Point& point) { return Korm::strep(point.x); },
         [](Point& point, const std::string& text) {
           auto current = text.begin();
           point.x = StrepReader{current, text.end()}.signedAttribute("x", -9, 9);
         }},
        {"visible", [](const Point& point) { return Korm::strep(point.visible); }, nullptr},
    }};
    return attributes;
  }
  bool operator!() const { return x == 0 && !visible; }
  friend bool operator==(const Point&, const Point&) = default;
  std::int64_t x = 0;
  bool visible = false;
};

TEST(Strep, ParsesAWholeTextAndNothingBehindIt) {
  const auto point = strepToValue<Point>("-3,True");
  EXPECT_EQ(point.x, -3);
  EXPECT_EQ(strepToValue<Point>(valueToStrep(point)), point);
  EXPECT_EQ(messageOf<ParseException>([] { (void)strepToValue<Point>("-3,True;"); }),
            "offset 7: expected the end of the text, found ';'");
  EXPECT_THROW((void)strepToValue<Point>("-3,Tru"), DeserializationException);
  EXPECT_THROW((void)strepToValue<Point>(""), ParseException);
}

TEST(Generic, ReachesAttributesByNameAndRefusesWhatIsNotOffered) {
  Point point;
  Generic<Point> generic{point};
  EXPECT_TRUE(generic.empty());
  generic.attributeIs("x", "-4");
  EXPECT_EQ(point.x, -4);
  EXPECT_EQ(generic.attribute("x"), "-4");
  EXPECT_EQ(generic.attribute("visible"), "False");
  EXPECT_FALSE(generic.empty());
  EXPECT_THROW(generic.attributeIs("x", "10"), DeserializationException);
  EXPECT_EQ(point.x, -4);
  EXPECT_EQ(messageOf<AttributeException>([&] { generic.attributeIs("visible", "True"); }),
            "attribute 'visible' can only be read");
  EXPECT_EQ(messageOf<AttributeException>([&] { (void)generic.attribute("y"); }),
            "no attribute 'y'");
  EXPECT_THROW(generic.attributeIs("y", "1"), AttributeException);
}

TEST(Generic, ComparesAndHashesByValue) {
  Point one;
  one.x = 5;
  Point same = one;
  Point other;
  EXPECT_EQ(Generic{one}.strep(), "5,False");
  EXPECT_TRUE(Generic{one}.equals(same));
  EXPECT_FALSE(Generic{one}.equals(other));
  EXPECT_EQ(Generic{one}.hash(), Generic{same}.hash());
  EXPECT_NE(Generic{one}.hash(), Generic{other}.hash());
}

// Arrays in records.

using Lists = PodArrayPair<std::uint32_t, 4>;

TEST(PodArray, KeepsTwoListsOneBehindTheOther) {
  Lists lists;
  EXPECT_EQ(lists.usedSize(), 8U);
  lists.set(std::vector<std::uint32_t>{1, 2, 3, 4}, std::vector<std::uint32_t>{7});
  EXPECT_THAT(lists.first(), testing::ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(lists.second(), testing::ElementsAre(7));
  EXPECT_EQ(lists.usedSize(), 28U);
  lists.set(std::vector<std::uint32_t>{9});
  EXPECT_THAT(lists.first(), testing::ElementsAre(9));
  EXPECT_THAT(lists.second(), testing::IsEmpty());
}

TEST(PodArray, RefusesMoreItemsThanItHoldsWithTheBufferInTheMessage) {
  PodArrayPair<std::uint8_t, 2> lists;
  const std::vector<std::uint8_t> one{7};
  lists.set(one, one);
  const std::vector<std::uint8_t> many{0x01, 0xAB, 0x02};
  std::ostringstream address;
  address << static_cast<const void*>(many.data());
  const std::string message =
      "PodArray::set expected size <= 2, instead got 3. Buffer is at address: " + address.str() +
      " with contents: 01ab02";
  EXPECT_EQ(messageOf<RangeException>([&] { lists.set(many, one); }), message);
  EXPECT_EQ(messageOf<RangeException>([&] { lists.set(one, many); }), message);
  EXPECT_THAT(lists.first(), testing::ElementsAre(7));
  EXPECT_THAT(lists.second(), testing::ElementsAre(7));
}

TEST(PodArray, RefusesToShowItemsOfADamagedRecord) {
  PodArrayPair<std::uint32_t, 1024> lists;
  lists.storedCountsIs(1025, 0);
  const auto message = messageOf<RangeException>([&] { (void)lists.first(); });
  EXPECT_THAT(message, StartsWith("PodArray::set expected size <= 1024, instead got 1025. Buffer "
                                  "is at address: 0x"));
  EXPECT_THAT(message, HasSubstr(" with contents: 00000000"));
  EXPECT_THROW((void)lists.second(), RangeException);
  lists.storedCountsIs(1024, 0xFFFFFFFF);
  EXPECT_EQ(lists.first().size(), 1024U);
  EXPECT_THROW((void)lists.second(), RangeException);
}

// Addresses.

TEST(Address, OfEthernetIsPrintedInOneWayAndReadInEitherCase) {
  const EthAddr address{{0x02, 0x00, 0xAB, 0x0C, 0xFF, 0x05}};
  EXPECT_EQ(address.text(), "02:00:ab:0c:ff:05");
  EXPECT_EQ(parseEthAddr(address.text()), address);
  EXPECT_EQ(parseEthAddr("02:00:AB:0C:FF:05"), address);
  for (const char* text :
       {"", "02:00:ab:0c:ff", "02:00:ab:0c:ff:5", "2:00:ab:0c:ff:005", "02-00-ab-0c-ff-05",
        "02:00:ab:0c:ff:0g", "02:00:ab:0c:ff:05 ", "02:00:ab:0c:ff:05:06", "+2:00:ab:0c:ff:05",
        "0x:00:ab:0c:ff:05", "02:00:ab:0c:ff:-5", "0200ab0cff05"}) {
    EXPECT_EQ(parseEthAddr(text), std::nullopt) << text;
  }
  EXPECT_TRUE(EthAddr{}.isZero());
  EXPECT_FALSE(EthAddr::allOnes().isZero());
  EXPECT_EQ(EthAddr::allOnes().text(), "ff:ff:ff:ff:ff:ff");
}

TEST(Address, OfTheInternetIsReadAsItIsPrinted) {
  for (const char* text :
       {"0.0.0.0", "10.1.0.255", "255.255.255.255", "::", "::1", "::1:2", "1::", "2001:db8::1",
        "fe80::1:0:0:1", "1:0:0:2::3", "1:2:3:4:5:6:7:8", "ff02::1:ff00:0",
        "1::", "0:1:0:1:0:1:0:1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    const auto address = parseIpAddr(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(address->text(), text);
  }
  EXPECT_EQ(parseIpAddr("2001:0DB8:0:0:0:0:0:1")->text(), "2001:db8::1");
  EXPECT_EQ(parseIpAddr("1:0:2:3:4:5:6:7")->text(), "1:0:2:3:4:5:6:7");
  EXPECT_EQ(parseIpAddr("::ffff:192.0.2.1")->family(), AddressFamily::ipv6_);
}

TEST(Address, OfTheInternetRefusesWhatIsNone) {
  using namespace std::string_view_literals;
  for (const std::string_view text : {""sv,
                                      "-"sv,
                                      "10.1.0"sv,
                                      "10.1.0.256"sv,
                                      "10.1.0.1.2"sv,
                                      "010.1.0.1"sv,
                                      "10.1.0.01"sv,
                                      "10.1.0.1 "sv,
                                      " 10.1.0.1"sv,
                                      "10.1.0.1/8"sv,
                                      "0x0a.1.0.1"sv,
                                      "10.1..1"sv,
                                      ":"sv,
                                      ":::"sv,
                                      "1::2::3"sv,
                                      "1:2:3:4:5:6:7"sv,
                                      "1:2:3:4:5:6:7:8:9"sv,
                                      "12345::"sv,
                                      "g::"sv,
                                      "::1%lo"sv,
                                      "10.1.0.1\0"sv,
                                      "::1\0x"sv}) {
    EXPECT_EQ(parseIpAddr(text), std::nullopt) << text;
  }
}

TEST(Address, OfTheInternetSurvivesPrintingAndReadingWhateverItIs) {
  std::mt19937 random{7};
  for (int round = 0; round < 3'000; ++round) {
    Ip6Addr address;
    for (auto& octet : address.octets) {
      octet = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : 0);
    }
    const IpAddr ip6{address};
    ASSERT_EQ(parseIpAddr(ip6.text()), ip6) << ip6;
    const IpAddr ip4{Ip4Addr{{address.octets[0], address.octets[1], 0, address.octets[3]}}};
    ASSERT_EQ(parseIpAddr(ip4.text()), ip4) << ip4;
    EthAddr eth;
    std::copy_n(address.octets.begin(), eth.octets.size(), eth.octets.begin());
    ASSERT_EQ(parseEthAddr(eth.text()), eth) << eth;
  }
}

TEST(Address, KnowsItsFamily) {
  const IpAddr none;
  const IpAddr ip4{Ip4Addr{{192, 0, 2, 1}}};
  const IpAddr ip6{Ip6Addr{{0x20, 0x01}}};
  EXPECT_EQ(none.text(), "-");
  EXPECT_TRUE(none.isZero());
  EXPECT_NE(none, IpAddr{Ip4Addr{}});
  EXPECT_NE(IpAddr{Ip4Addr{}}, IpAddr{Ip6Addr{}});
  EXPECT_TRUE(IpAddr{Ip6Addr{}}.isZero());
  EXPECT_EQ(ip4.ip4().text(), "192.0.2.1");
  EXPECT_EQ(ip4.ip6(), Ip6Addr{});
  EXPECT_EQ(ip6.ip6().text(), "2001::");
  EXPECT_EQ(ip6.ip4(), Ip4Addr{});
  EXPECT_EQ(none.ip4(), Ip4Addr{});
}

TEST(Address, HasMasksOfEveryLengthOfItsFamilyAndNoOther) {
  const auto ip4 = [](unsigned length) {
    return IpAddr::prefixMask(AddressFamily::ipv4_, length).text();
  };
  const auto ip6 = [](unsigned length) {
    return IpAddr::prefixMask(AddressFamily::ipv6_, length).text();
  };
  EXPECT_EQ(ip4(0), "0.0.0.0");
  EXPECT_EQ(ip4(1), "128.0.0.0");
  EXPECT_EQ(ip4(8), "255.0.0.0");
  EXPECT_EQ(ip4(17), "255.255.128.0");
  EXPECT_EQ(ip4(32), "255.255.255.255");
  EXPECT_EQ(ip6(0), "::");
  EXPECT_EQ(ip6(33), "ffff:ffff:8000::");
  EXPECT_EQ(ip6(127), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe");
  EXPECT_EQ(ip6(128), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
  EXPECT_EQ(messageOf<RangeException>([&] { ip4(33); }),
            "IpAddr::prefixMask length 33 > 32 not allowed");
  EXPECT_THROW(ip6(129), RangeException);
  EXPECT_THROW((void)IpAddr::prefixMask(AddressFamily::none_, 1), RangeException);
  EXPECT_EQ(IpAddr::prefixMask(AddressFamily::none_, 0), IpAddr{});
}

static_assert(std::has_unique_object_representations_v<EthAddr> &&
              std::has_unique_object_representations_v<IpAddr> &&
              std::has_unique_object_representations_v<PodArrayPair<std::uint32_t, 3>>);

// Limits. Each type is built from integers that are wider than its own, of either sign.

template <class Bounded>
void expectBounds(long long least, long long most, const std::string& message) {
  for (const long long value : {least, least + 1, most - 1, most}) {
    EXPECT_EQ(static_cast<long long>(Bounded{value}.value()), value);
  }
  EXPECT_EQ(Bounded::min, least);
  EXPECT_EQ(Bounded::max, most);
  const long long low = std::numeric_limits<long long>::min();
  const long long high = std::numeric_limits<long long>::max();
  for (const long long value : {least - 1, most + 1, most + 65'536LL * 65'536 + 1, low, high}) {
    EXPECT_EQ(messageOf<RangeException>([&] { static_cast<void>(Bounded{value}); }), message)
        << value;
  }
  EXPECT_EQ(messageOf<RangeException>([&] { static_cast<void>(Bounded{UINT64_MAX}); }), message);
  std::ostringstream out;
  out << Bounded{most};
  EXPECT_EQ(out.str(), std::to_string(most));
  EXPECT_LT(Bounded{least}, Bounded{most});
  EXPECT_EQ(Bounded{}.value(), 0);
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

// Failures.

TEST(Exceptions, SourceUnitsAreTheLastFolderAndTheNameWithoutEnding) {
  EXPECT_EQ(sourceUnit("/home/someone/project/Ostra/OstraSm.cpp"), "Ostra/OstraSm");
  EXPECT_EQ(sourceUnit("Ostra/OstraSm.cpp"), "Ostra/OstraSm");
  EXPECT_EQ(sourceUnit("OstraSm.cpp"), "OstraSm");
  EXPECT_EQ(sourceUnit("/OstraSm.h"), "/OstraSm");
  EXPECT_EQ(sourceUnit("Ostra/FlowUtil"), "Ostra/FlowUtil");
  EXPECT_EQ(sourceUnit(""), "");
}

TEST(Exceptions, ARangeExceptionSaysTheMessageAndNothingElse) {
  EXPECT_EQ(messageOf<RangeException>([] { throwRangeException("too far"); }), "too far");
}

TEST(AssertionDeathTest, PrintsItsTextAndPlaceAndAborts) {
  EXPECT_EXIT(assertTrue(false, "cxHwStatusDir", "Ostra/Ostra", 40),
              testing::KilledBySignal(SIGABRT),
              "^Assertion failed: cxHwStatusDir \\(Ostra/Ostra:40\\)\n$");
  EXPECT_DEATH(assertTrue(false, "here"),
               "Assertion failed: here \\(platform/KormValuesTest:[0-9]+\\)");
  assertTrue(true, "holds");
}

// Clock and activity.

TEST(Clock, IsTheSystemsUntilTheHostSetsOne) {
  EXPECT_TRUE(clockIsSystem());
  const double before = currentTime();
  EXPECT_GT(before, 1.6e9);
  EXPECT_GE(currentTime(), before);
  clockIs([] { return 12.5; });
  EXPECT_FALSE(clockIsSystem());
  EXPECT_EQ(currentTime(), 12.5);
  clockIs(nullptr);
  EXPECT_TRUE(clockIsSystem());
  EXPECT_GE(currentTime(), before);
}

TEST(Activity, RunsWorkInTheOrderOfItsDeferralIncludingWhatWorkDefers) {
  Activity queue;
  std::string ran;
  queue.defer([&] {
    ran += 'a';
    queue.defer([&] { ran += 'c'; });
  });
  queue.defer([&] { ran += 'b'; });
  EXPECT_FALSE(queue.idle());
  EXPECT_EQ(ran, "");
  queue.run();
  EXPECT_EQ(ran, "abc");
  EXPECT_TRUE(queue.idle());
}

TEST(Activity, KeepsTheRestWhenWorkThrows) {
  Activity queue;
  std::string ran;
  queue.defer([] { throw 1; });
  queue.defer([&] { ran += 'b'; });
  EXPECT_THROW(queue.run(), int);
  EXPECT_FALSE(queue.idle());
  queue.run();
  EXPECT_EQ(ran, "b");
}

TEST(Activity, DropsWorkThatDefersMoreAsItGoes) {
  struct Deferring {
    Deferring(Activity& given, int& ran) : queue{given}, runs{ran} {}
    ~Deferring() {
      queue.defer([&runs = runs] { ++runs; });
    }
    Activity& queue;
    int& runs;
  };
  Activity queue;
  int runs = 0;
  for (int work = 0; work < 100; ++work) {
    queue.defer([held = std::make_shared<Deferring>(queue, runs)] { ADD_FAILURE(); });
  }
  queue.clear();
  queue.run();
  EXPECT_EQ(runs, 100);
}

TEST(ActivityCounters, KeepTheirPlacesAndAnswerForNamesThatAreNone) {
  ActivityCounters counters;
  auto& changes = counters.counter("changes");
  for (int name = 0; name < 50; ++name) {
    ++counters.counter(std::to_string(name));
  }
  changes += 2;
  EXPECT_EQ(counters.value("changes"), 2U);
  EXPECT_EQ(counters.value("nothing"), 0U);
  EXPECT_EQ(counters.all().size(), 51U);
}

}  // namespace
}  // namespace Korm
