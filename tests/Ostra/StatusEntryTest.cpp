#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Ostra/OstraStatus.h"
#include "tests/Ostra/StatusTestSupport.h"

namespace {

using Korm::DeserializationException;
using Korm::ParseException;
using Ostra::OstraKey;
using Ostra::OstraStatusEntry;
using P4Runtime::ErrorCode;
using StatusTest::portKey;

OstraStatusEntry sample() {
  return {{.genId = 7,
           .entryHandle = 18446744073709551615U,
           .errorCode = ErrorCode::hardwareResourceExhausted_,
           .deleted = true},
          portKey(443)};
}

std::string sampleText() {
  return "Value('Ostra::OstraStatusEntry', ** {'genId': 7, 'entryHandle': 18446744073709551615, "
         "'errorCode': hardwareResourceExhausted, 'deleted': True, 'key': " +
         portKey(443).valueToStrep() + "})";
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

TEST(StatusEntry, PrintsAndReadsItsExactText) {
  EXPECT_EQ(sample().valueToStrep(), sampleText());
  std::ostringstream out;
  out << sample();
  EXPECT_EQ(out.str(), sampleText());
  EXPECT_EQ(parse(sampleText()), sample());

  EXPECT_EQ(OstraStatusEntry{}.valueToStrep(),
            "Value('Ostra::OstraStatusEntry', ** {'genId': 0, 'entryHandle': 0, 'errorCode': "
            "success, 'deleted': False, 'key': " +
                OstraKey{}.valueToStrep() + "})");
  EXPECT_TRUE(!parse(OstraStatusEntry{}.valueToStrep()));

  // A code without a name is its number, and comes back.
  EXPECT_EQ(parse(with("hardwareResourceExhausted", "3")).errorCode, ErrorCode{3});
}

TEST(StatusEntry, IsReadFromTheMiddleOfAText) {
  const std::string text = "[" + sampleText() + "]";
  auto current = text.begin() + 1;
  EXPECT_EQ(OstraStatusEntry(current, text.end()), sample());
  EXPECT_EQ(std::string(current, text.end()), "]");
}

TEST(StatusEntry, RefusesEveryOtherText) {
  const std::string text = sampleText();
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_THROW(parse(text.substr(0, length)), ParseException) << "truncated to " << length;
  }
  for (const std::string& bad : {
           text + " ",
           text + "})",
           " " + text,
           with("'genId': 7", "'genId': 07"),
           with("'genId': 7", "'genId': -7"),
           with("'genId': 7", "'genId':7"),
           with("'genId': 7, 'entryHandle': 18446744073709551615",
                "'entryHandle': 18446744073709551615, 'genId': 7"),
           with("'deleted': True, ", ""),
           with("** {", "** { "),
           with("Status", "Config"),
       }) {
    EXPECT_THROW(parse(bad), ParseException) << bad;
  }
}

TEST(StatusEntry, NamesTheAttributeWhoseValueIsRefused) {
  const auto refused = [](const std::string& text) -> std::string {
    try {
      parse(text);
    } catch (const DeserializationException& error) {
      return error.attribute();
    }
    return "none";
  };
  EXPECT_EQ(refused(with("7", "18446744073709551616")), "genId");
  EXPECT_EQ(refused(with("18446744073709551615", "x")), "entryHandle");
  EXPECT_EQ(refused(with("hardwareResourceExhausted", "noSuchCode")), "errorCode");
  EXPECT_EQ(refused(with("hardwareResourceExhausted", "20")), "errorCode");
  EXPECT_EQ(refused(with("True", "true")), "deleted");
}

TEST(StatusEntry, IsEqualInAllFieldsAndEmptyInNone) {
  EXPECT_TRUE(!OstraStatusEntry{});
  EXPECT_EQ(sample(), sample());
  EXPECT_TRUE(!!(OstraStatusEntry{{}, portKey(1)})) << "a key alone is not empty";

  std::vector<OstraStatusEntry> others(4, sample());
  others[0].genId = 8;
  others[1].entryHandle = 1;
  others[2].errorCode = ErrorCode::success_;
  others[3].deleted = false;
  others.emplace_back(sample(), portKey(444));
  for (const OstraStatusEntry& other : others) {
    EXPECT_FALSE(other == sample()) << other;
  }
}

TEST(StatusEntry, IsReachedByAttributeName) {
  OstraStatusEntry entry{{}, portKey(443)};
  Korm::Generic<OstraStatusEntry> generic{entry};
  const OstraStatusEntry expected = sample();
  for (const auto& attribute : OstraStatusEntry::genericAttributes()) {
    if (attribute.name != "key") {
      generic.attributeIs(attribute.name, attribute.read(expected));
    }
    EXPECT_EQ(generic.attribute(attribute.name), attribute.read(expected)) << attribute.name;
  }
  EXPECT_EQ(entry, expected);
  EXPECT_EQ(generic.attribute("errorCode"), "hardwareResourceExhausted");
  EXPECT_EQ(generic.strep(), sampleText());
  EXPECT_FALSE(generic.empty());
  EXPECT_TRUE(generic.equals(expected));
  OstraStatusEntry same = sample();
  EXPECT_EQ(generic.hash(), Korm::Generic<OstraStatusEntry>{same}.hash());

  EXPECT_THROW(generic.attributeIs("key", portKey(1).valueToStrep()), Korm::AttributeException);
  EXPECT_THROW(generic.attributeIs("reserved", "0"), Korm::AttributeException);
  EXPECT_THROW(generic.attributeIs("genId", "1 "), ParseException);
  EXPECT_THROW(generic.attributeIs("deleted", ""), DeserializationException);
  EXPECT_THROW(generic.attributeIs("errorCode", "20"), DeserializationException);
  EXPECT_EQ(entry, expected) << "a refused write changes nothing";
}

}  // namespace
