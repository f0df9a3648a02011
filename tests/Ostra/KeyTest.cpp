#include "ServiceFixture.h"
#include "platform/Korm/Strep.h"

namespace OstraTest {
namespace {

using Ostra::MatchFieldId;

// What the parser says of a text that it refuses; empty for one that it takes.
std::string refusal(const std::string& text) {
  return messageOf<Korm::ParseException>(
      [&text] { static_cast<void>(Korm::strepToValue<OstraKey>(text)); });
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
      {"'priority': 10", "'priority': -0", "'priority'"},
      {"'priority': 10", "'priority': --1", "'priority'"},
      {"'priorityGroupType': 0", "'priorityGroupType': +1", "'priorityGroupType'"},
      {"'priorityGroupType': 0", "'priorityGroupType': 00", "'priorityGroupType'"},
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
  std::ostringstream out;
  out << sampleKey();
  EXPECT_EQ(out.str(), text);
  const std::string within = text + ", 'next': 1";
  auto current = within.begin();
  EXPECT_TRUE((OstraKey{current, within.end()} == sampleKey()));
  EXPECT_EQ(current - within.begin(), static_cast<std::ptrdiff_t>(text.size()));
  for (std::size_t length = 0; length < text.size(); ++length) {
    ASSERT_NE(refusal(text.substr(0, length)).find("offset"), std::string::npos) << length;
  }
  for (const std::string& more : {std::string{" "}, text}) {
    EXPECT_NE(refusal(text + more).find("expected the end of the text"), std::string::npos);
  }
  EXPECT_NE(refusal(" " + text), "");
}

}  // namespace
}  // namespace OstraTest
