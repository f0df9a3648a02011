// Keys and status entries as text, and what is refused of it.
#include "ServiceFixture.h"
#include "platform/Korm/Strep.h"

namespace OstraTest {
namespace {

using Korm::ParseException;
using Ostra::MatchFieldId;
using Ostra::OstraStatusEntry;
using P4Runtime::ErrorCode;

// What the parser says of a text that it refuses; empty for one that it takes.
template <class T>
std::string refusal(const std::string& text) {
  return messageOf<ParseException>([&text] { static_cast<void>(Korm::strepToValue<T>(text)); });
}

// The text with one part of it in other words.
std::string reworded(std::string text, const std::string& part, const std::string& words) {
  const auto at = text.find(part);
  EXPECT_NE(at, std::string::npos) << part << " in " << text;
  return text.replace(at, part.size(), words);
}

struct Rewording {
  std::string part;
  std::string words;
  std::string said;  // of them, when they are refused
};

// Expects that the text is taken, and neither a rewording, a beginning nor more than all of it.
template <class T>
void expectOneSpelling(const std::string& text, const std::vector<Rewording>& rewordings) {
  EXPECT_EQ(Korm::strepToValue<T>(text).valueToStrep(), text);
  for (const auto& [part, words, said] : rewordings) {
    const std::string other = reworded(text, part, words);
    EXPECT_THAT(refusal<T>(other), AllOf(Not(IsEmpty()), HasSubstr(said))) << other;
  }
  for (std::size_t length = 0; length < text.size(); ++length) {
    ASSERT_NE(refusal<T>(text.substr(0, length)), "") << length;
  }
  for (const std::string& more : {std::string{" "}, text}) {
    EXPECT_THAT(refusal<T>(text + more), HasSubstr("expected the end of the text"));
  }
  EXPECT_THAT(refusal<T>(" " + text), Not(IsEmpty()));
}

TEST(KeyText, HasOneSpelling) {
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
  const std::string text = key.valueToStrep();
  const std::string type = ", 'hdr.ethernet.ether_type': '2048&65535'";
  const std::string icmp = ", 'hdr.icmp.type': '8&255'";
  expectOneSpelling<OstraKey>(
      text, {{"'priority': 10", "'priority': 010", "'priority'"},
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
             {icmp, icmp + type, "offset"}});
  EXPECT_EQ(refusal<OstraKey>(reworded(text, icmp, "")), "") << "a field less is another key";

  std::ostringstream out;
  out << key;
  EXPECT_EQ(out.str(), text);
  const std::string within = text + ", 'next': 1";
  auto current = within.begin();
  EXPECT_TRUE((OstraKey{current, within.end()} == key));
  EXPECT_EQ(current - within.begin(), static_cast<std::ptrdiff_t>(text.size()));
}

// An entry of a status table.
OstraStatusEntry sample() {
  return {{.genId = 7,
           .entryHandle = 18446744073709551615U,
           .errorCode = ErrorCode::hardwareResourceExhausted_,
           .deleted = true},
          plainKey(443)};
}

TEST(StatusEntry, HasOneSpelling) {
  const std::string text =
      "Value('Ostra::OstraStatusEntry', ** {'genId': 7, 'entryHandle': 18446744073709551615, "
      "'errorCode': hardwareResourceExhausted, 'deleted': True, 'key': " +
      plainKey(443).valueToStrep() + "})";
  EXPECT_EQ(sample().valueToStrep(), text);
  expectOneSpelling<OstraStatusEntry>(
      text, {{"'genId': 7", "'genId': 07", "'genId'"},
             {"'genId': 7", "'genId':7", "offset"},
             {"'deleted': True, ", "", "offset"},
             {"Status", "Config", "offset"},
             {"7", "18446744073709551616", "'genId'"},
             {"18446744073709551615", "x", "'entryHandle'"},
             {"hardwareResourceExhausted", "4294967296", "'errorCode'"},
             {"True", "true", "'deleted'"},
             // Whatever is out of range inside the key.
             {"'priority': 10", "'priority': 2147483648", "attribute 'key'"},
             {"443&", "65536&", "attribute 'key'"}});
  EXPECT_TRUE(!Korm::strepToValue<OstraStatusEntry>(OstraStatusEntry{}.valueToStrep()));
  for (const std::uint32_t code : {3U, 20U, 4294967295U}) {
    OstraStatusEntry entry = sample();
    entry.errorCode = ErrorCode{code};
    EXPECT_EQ(Korm::strepToValue<OstraStatusEntry>(entry.valueToStrep()), entry)
        << "a code without a name is its number";
  }
}

TEST(StatusEntry, IsReachedByAttributeName) {
  OstraStatusEntry entry{{}, plainKey(443)};
  EXPECT_FALSE(!entry) << "a key alone is not empty";
  Korm::Generic<OstraStatusEntry> generic{entry};
  const OstraStatusEntry expected = sample();
  for (const auto& attribute : OstraStatusEntry::genericAttributes()) {
    if (attribute.name != "key") {
      EXPECT_NE(entry, expected) << "without its " << attribute.name;
      generic.attributeIs(attribute.name, attribute.read(expected));
    }
    EXPECT_EQ(generic.attribute(attribute.name), attribute.read(expected)) << attribute.name;
  }
  EXPECT_EQ(entry, expected);
  EXPECT_NE(entry, OstraStatusEntry(sample(), plainKey(444)));
  OstraStatusEntry empty;
  OstraStatusEntry same = sample();
  EXPECT_FALSE(generic.empty());
  EXPECT_TRUE(Korm::Generic<OstraStatusEntry>{empty}.empty());
  EXPECT_TRUE(generic.equals(same));
  EXPECT_FALSE(generic.equals(empty));
  EXPECT_EQ(generic.hash(), Korm::Generic<OstraStatusEntry>{same}.hash());
  EXPECT_NE(generic.hash(), Korm::Generic<OstraStatusEntry>{empty}.hash());

  EXPECT_THROW(generic.attributeIs("key", plainKey(1).valueToStrep()), Korm::AttributeException);
  EXPECT_THROW(generic.attributeIs("reserved", "0"), Korm::AttributeException);
  EXPECT_THROW(generic.attributeIs("genId", "1 "), ParseException);
  EXPECT_THROW(generic.attributeIs("errorCode", "success1"), Korm::DeserializationException);
  EXPECT_EQ(entry, expected) << "a refused write changes nothing";
}

}  // namespace
}  // namespace OstraTest
