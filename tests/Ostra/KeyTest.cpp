#include <algorithm>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/Strep.h"

namespace OstraTest {
namespace {

using Ostra::MatchFieldId;
using Ostra::OstraKey;

constexpr unsigned fields = static_cast<unsigned>(MatchFieldId::count_);

// Values with few bits or many, and the ends of the range more often than chance has it.
class RandomKeys {
 public:
  explicit RandomKeys(unsigned seed) : random_{seed} {}

  OstraKey operator()() {
    OstraKey key;
    key.tableTypeIs(number<std::int32_t>());
    key.priorityGroupTypeIs(number<std::uint32_t>());
    key.priorityIs(number<std::int32_t>());
    key.forEachField([this](std::string_view, const auto& field, auto put) {
      using T = decltype(field.value);
      if (below(3) != 0) {
        put(value<T>(), value<T>());
      }
    });
    // A few fields that are not given keep what stands in them.
    key.givenIs(MatchFieldId{static_cast<std::uint8_t>(below(fields))}, false);
    return key;
  }
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

 private:
  template <class T>
  T number() {
    switch (below(4)) {
      case 0:
        return std::numeric_limits<T>::min();
      case 1:
        return std::numeric_limits<T>::max();
      default:
        return static_cast<T>(random_());
    }
  }
  template <std::size_t size>
  std::array<std::uint8_t, size> octets() {
    std::array<std::uint8_t, size> result{};
    for (auto& octet : result) {
      octet = below(2) == 0 ? std::uint8_t{0} : static_cast<std::uint8_t>(random_());
    }
    return result;
  }
  template <class T>
  T value() {
    if constexpr (std::is_same_v<T, bool>) {
      return below(2) == 0;
    } else if constexpr (std::is_integral_v<T>) {
      return number<T>();
    } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
      return {octets<6>()};
    } else {
      return address();
    }
  }
  Korm::IpAddr address() {
    switch (below(4)) {
      case 0:
        return {};
      case 1:
        return Korm::IpAddr{Korm::Ip4Addr{octets<4>()}};
      case 2: {  // an IPv4 address mapped into IPv6, which has a spelling of its own
        auto mapped = octets<16>();
        std::fill_n(mapped.begin(), 10, std::uint8_t{0});
        std::fill_n(mapped.begin() + 10, 2, std::uint8_t{0xFF});
        return Korm::IpAddr{Korm::Ip6Addr{mapped}};
      }
      default:
        return Korm::IpAddr{Korm::Ip6Addr{octets<16>()}};
    }
  }

  std::mt19937_64 random_;
};

// Keys that differ from this one in one thing each: the placement, and every value, mask and given flag
// that the donor has otherwise.
std::vector<OstraKey> changed(const OstraKey& key, const OstraKey& donor) {
  std::vector<OstraKey> result(3, key);
  result[0].tableTypeIs(key.tableType() ^ 1);
  result[1].priorityGroupTypeIs(key.priorityGroupType() ^ 1U);
  result[2].priorityIs(key.priority() ^ 1);
#define OSTRA_FIELD_TAKE(member, ...)                          \
  if (!(donor.member().value == key.member().value)) {         \
    OstraKey& next = result.emplace_back(key);                 \
    next.member##Is(donor.member().value, key.member().mask);  \
    next.givenIs(MatchFieldId::member##_, key.member().given); \
  }                                                            \
  if (!(donor.member().mask == key.member().mask)) {           \
    OstraKey& next = result.emplace_back(key);                 \
    next.member##Is(key.member().value, donor.member().mask);  \
    next.givenIs(MatchFieldId::member##_, key.member().given); \
  }                                                            \
  result.emplace_back(key).givenIs(MatchFieldId::member##_, !key.member().given);
  OSTRA_MATCH_FIELDS(OSTRA_FIELD_TAKE)
#undef OSTRA_FIELD_TAKE
  return result;
}

TEST(Key, DifferencesShowInTheOrderTheHashAndTheText) {
  RandomKeys keys{2};
  std::set<std::uint32_t> hashes;
  std::size_t distinct = 0;
  for (int round = 0; round < 100; ++round) {
    const OstraKey key = keys();
    const auto others = changed(key, keys());
    for (const OstraKey& other : others) {
      ASSERT_FALSE(key == other);
      ASSERT_NE(key < other, other < key);
      ASSERT_NE(key.valueToStrep(), other.valueToStrep());
      hashes.insert(other.hash(0));
    }
    distinct += others.size();
  }
  EXPECT_GT(hashes.size(), distinct - distinct / 100) << "the hash tells keys apart";
  EXPECT_NE(OstraKey{}.hash(0), OstraKey{}.hash(1)) << "the seed counts";
}

TEST(KeyText, RoundTripsEveryKey) {
  RandomKeys keys{4};
  for (int round = 0; round < 5'000; ++round) {
    const OstraKey key = round == 0 ? OstraKey{} : keys();
    const std::string text = key.valueToStrep();
    std::ostringstream out;
    out << key;
    ASSERT_EQ(out.str(), text);
    const std::string within = text + ", 'next': 1";
    auto current = within.begin();
    const OstraKey read{current, within.end()};
    ASSERT_TRUE(read == key) << text;
    ASSERT_EQ(read.hash(7), key.hash(7));
    ASSERT_EQ(current - within.begin(), static_cast<std::ptrdiff_t>(text.size()));
  }
}

// What the parser says of a text that it refuses; empty for one that it takes.
std::string refusal(const std::string& text) {
  try {
    static_cast<void>(Korm::strepToValue<OstraKey>(text));
  } catch (const Korm::ParseException& error) {
    return error.what();
  }
  return {};
}

OstraKey sampleKey() {
  OstraKey key;
  key.tableTypeIs(1);
  key.priorityIs(10);
  key.ingressPortIs(5, 0xFFFFFFFF);
  key.ethSrcIs({{2, 0, 0, 0, 0, 0xAB}}, Korm::EthAddr::allOnes());
  key.etherTypeIs(2048, 0xFFFF);
  key.ip4DstIs(*Korm::parseIpAddr("10.1.0.0"), *Korm::parseIpAddr("255.255.0.0"));
  key.ip6DstIs(*Korm::parseIpAddr("2001:db8::1"), *Korm::parseIpAddr("ffff::"));
  key.icmpTypeIs(8, 255);
  key.hopLimitIs(64, 255);
  key.givenIs(MatchFieldId::hopLimit_, false);
  key.isIpPacketIs(true, true);
  return key;
}

// The sample's text with one part of it in other words.
std::string reworded(const std::string& part, const std::string& words) {
  std::string text = sampleKey().valueToStrep();
  const auto at = text.find(part);
  EXPECT_NE(at, std::string::npos) << part << " in " << text;
  return text.replace(at, part.size(), words);
}

TEST(KeyText, RefusesOtherSpellingsBeginningsAndAnythingBehindAndSaysWhy) {
  const std::string type = ", 'hdr.ethernet.ether_type': '2048&65535'";
  const std::string icmp = ", 'hdr.icmp.type': '8&255'";
  struct Case {
    std::string part;
    std::string words;
    std::string said;
  };
  const Case cases[] = {
      {"'priority': 10", "'priority': 010", "'priority'"},
      {"'priority': 10", "'priority': 2147483648", "to 2147483647"},
      {"'priority': 10", "'priority': -2147483649", "from -2147483648"},
      {"'priorityGroupType': 0", "'priorityGroupType': 4294967296", "up to 4294967295"},
      {"'5&", "'4294967296&", "'ingress_port'"},
      {"2048&65535", "2048&65536", "'hdr.ethernet.ether_type'"},
      {"8&255", "8", "'&'"},
      {"02:00:00:00:00:ab", "02:00:00:00:00:AB", "only spelling"},
      {"10.1.0.0", "10.1.0", "'hdr.ipv4_base.dst_addr'"},
      {"True&True", "true&True", "'local_metadata.isIpPacket'"},
      {"Ostra::OstraKey", "Ostra::Key", "offset 0"},
      {type, type + type, "offset"},
      {type, ", 'hdr.ethernet.kind': '2048&65535'", "offset"},
      {icmp, icmp + type, "offset"},
  };
  for (const Case& wrong : cases) {
    const std::string text = reworded(wrong.part, wrong.words);
    EXPECT_NE(refusal(text).find(wrong.said), std::string::npos) << text << ": " << refusal(text);
  }
  EXPECT_EQ(refusal(reworded(icmp, "")), "") << "a field less is another key";

  const std::string text = sampleKey().valueToStrep();
  ASSERT_EQ(refusal(text), "");
  for (std::size_t length = 0; length < text.size(); ++length) {
    ASSERT_NE(refusal(text.substr(0, length)).find("offset"), std::string::npos) << length;
  }
  for (const std::string& more : {std::string{" "}, text}) {
    EXPECT_NE(refusal(text + more).find("expected the end of the text"), std::string::npos);
  }
  EXPECT_NE(refusal(" " + text), "");
}

TEST(KeyText, TakesNothingThatItWouldNotPrint) {
  RandomKeys keys{5};
  constexpr std::string_view letters = "0123456789abcdefABF:.&'!-+ ,TFxture{})";
  unsigned taken = 0;
  for (int round = 0; round < 20'000; ++round) {
    std::string text = round % 2 == 0 ? sampleKey().valueToStrep() : keys().valueToStrep();
    const std::size_t at = keys.below(static_cast<unsigned>(text.size()));
    const std::string letter{letters[keys.below(letters.size())]};
    text.replace(at, keys.below(3), keys.below(4) == 0 ? "" : letter);
    try {
      ASSERT_EQ(Korm::strepToValue<OstraKey>(text).valueToStrep(), text);
      ++taken;
    } catch (const Korm::ParseException&) {
    }
  }
  EXPECT_GT(taken, 500U) << "some are other keys";
}

}  // namespace
}  // namespace OstraTest
