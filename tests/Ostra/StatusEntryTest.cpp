#include "ServiceFixture.h"

namespace OstraTest {
namespace {

using Korm::DeserializationException;
using Korm::ParseException;
using Ostra::OstraStatusEntry;
using P4Runtime::ErrorCode;

OstraStatusEntry sample() {
  return {{.genId = 7,
           .entryHandle = 18446744073709551615U,
           .errorCode = ErrorCode::hardwareResourceExhausted_,
           .deleted = true},
          plainKey(443)};
}

std::string sampleText() {
  return "Value('Ostra::OstraStatusEntry', ** {'genId': 7, 'entryHandle': 18446744073709551615, "
         "'errorCode': hardwareResourceExhausted, 'deleted': True, 'key': " +
         plainKey(443).valueToStrep() + "})";
}

OstraStatusEntry parse(const std::string& text) {
  return Korm::strepToValue<OstraStatusEntry>(text);
}

// The sample's text with one part exchanged.
std::string with(const std::string& part, const std::string& other) {
  std::string text = sampleText();
  const auto at = text.find(part);
  EXPECT_NE(at, std::string::npos) << part;
  return text.replace(at, part.size(), other);
}

TEST(StatusEntry, ReadsTheTextThatItPrintsAndNoOther) {
  const std::string text = sampleText();
  EXPECT_EQ(sample().valueToStrep(), text);
  EXPECT_EQ(parse(text), sample());
  EXPECT_TRUE(!parse(OstraStatusEntry{}.valueToStrep()));
  for (const std::uint32_t code : {3U, 20U, 4294967295U}) {
    OstraStatusEntry entry = sample();
    entry.errorCode = ErrorCode{code};
    EXPECT_EQ(parse(entry.valueToStrep()), entry) << "a code without a name is its number";
  }

  for (const std::string& bad :
       {text + " ", " " + text, with("'genId': 7", "'genId': 07"), with("'genId': 7", "'genId':7"),
        with("'deleted': True, ", ""), with("Status", "Config")}) {
    EXPECT_THROW(parse(bad), ParseException) << bad;
  }
  const auto refused = [](const std::string& bad) -> std::string {
    try {
      parse(bad);
    } catch (const DeserializationException& error) {
      return error.attribute();
    }
    return "none";
  };
  EXPECT_EQ(refused(with("7", "18446744073709551616")), "genId");
  EXPECT_EQ(refused(with("18446744073709551615", "x")), "entryHandle");
  EXPECT_EQ(refused(with("hardwareResourceExhausted", "4294967296")), "errorCode");
  EXPECT_EQ(refused(with("True", "true")), "deleted");
  EXPECT_EQ(refused(with("'priority': 10", "'priority': 2147483648")), "key")
      << "whatever is out of range inside the key";
  EXPECT_EQ(refused(with("443&", "65536&")), "key");
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
  EXPECT_THROW(generic.attributeIs("errorCode", "success1"), DeserializationException);
  EXPECT_EQ(entry, expected) << "a refused write changes nothing";
}

}  // namespace
}  // namespace OstraTest
