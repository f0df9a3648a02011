// Texts that become values.
#include <arpa/inet.h>
#include <strings.h>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/OstraTypes.h"
#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Strep.h"
#include "tests/fuzz/Targets.h"

namespace Fuzz {
namespace {

// A text that is parsed is the one that would be printed.
template <class T>
void takesOnlyWhatItPrints(const std::string& text) {
  try {
    const T value = Korm::strepToValue<T>(text);
    Korm::assertTrue(Korm::valueToStrep(value) == text, "a text has one spelling");
  } catch (const Korm::ParseException&) {
  }
}

template <class T>
T valueFrom(Source& source) {
  if constexpr (std::is_same_v<T, bool>) {
    return (source.next() & 1U) != 0;
  } else if constexpr (std::is_same_v<T, Korm::IpAddr>) {
    const auto family = source.next() % 3;
    return family == 0   ? Korm::IpAddr{}
           : family == 1 ? Korm::IpAddr{source.next<Korm::Ip4Addr>()}
                         : Korm::IpAddr{source.next<Korm::Ip6Addr>()};
  } else {
    return source.next<T>();
  }
}

Ostra::OstraKey keyOf(Source& source) {
  Ostra::OstraKey key;
  key.tableTypeIs(source.next<std::int32_t>());
  key.priorityGroupTypeIs(source.next<std::uint32_t>());
  key.priorityIs(source.next<std::int32_t>());
  const auto chosen = source.next<std::uint32_t>();
  const auto given = source.next<std::uint32_t>();
  unsigned number = 0;
#define OSTRA_FUZZ_FIELD(member, Type, ...)                            \
  if ((chosen >> number & 1U) != 0) {                                  \
    const Type value = valueFrom<Type>(source);                        \
    key.member##Is(value, valueFrom<Type>(source));                    \
    key.givenIs(Ostra::MatchFieldId::member##_, given >> number & 1U); \
  }                                                                    \
  ++number;
  OSTRA_MATCH_FIELDS(OSTRA_FUZZ_FIELD)
#undef OSTRA_FUZZ_FIELD
  return key;
}

void checkIp(const std::string& text) {
  Korm::Ip4Addr four;
  Korm::Ip6Addr six;
  const bool isFour = ::inet_pton(AF_INET, text.c_str(), four.octets.data()) == 1;
  const bool isSix = ::inet_pton(AF_INET6, text.c_str(), six.octets.data()) == 1;
  const auto parsed = Korm::parseIpAddr(text);
  if (text.find('\0') != std::string::npos) {
    Korm::assertTrue(!parsed, "an address has no zero character");
    return;
  }
  Korm::assertTrue(parsed.has_value() == (isFour || isSix), "an address is one to the system too");
  if (parsed) {
    Korm::assertTrue(*parsed == (isFour ? Korm::IpAddr{four} : Korm::IpAddr{six}),
                     "an address is that of the system");
    Korm::assertTrue(Korm::parseIpAddr(parsed->text()) == parsed, "an address round-trips");
  }
}

void checkMac(const std::string& text) {
  bool isMac = text.size() == 17;
  for (std::size_t at = 0; isMac && at < text.size(); ++at) {
    isMac =
        at % 3 == 2 ? text[at] == ':' : std::isxdigit(static_cast<unsigned char>(text[at])) != 0;
  }
  const auto parsed = Korm::parseEthAddr(text);
  Korm::assertTrue(parsed.has_value() == isMac, "a MAC address has six pairs of digits");
  if (parsed) {
    Korm::assertTrue(::strcasecmp(parsed->text().c_str(), text.c_str()) == 0,
                     "a MAC address round-trips");
  }
}

}  // namespace

void key(Bytes bytes) {
  takesOnlyWhatItPrints<Ostra::OstraKey>(textOf(bytes));
  Source source{bytes};
  const Ostra::OstraKey made = keyOf(source);
  const auto read = Korm::strepToValue<Ostra::OstraKey>(made.valueToStrep());
  Korm::assertTrue(read == made && read.hash(0) == made.hash(0), "a key round-trips");
}

void status(Bytes bytes) {
  takesOnlyWhatItPrints<Ostra::OstraStatusEntry>(textOf(bytes));
  Source source{bytes};
  P4Runtime::TableStatusEntryBase base;
  base.genId = source.next<std::uint64_t>();
  base.entryHandle = source.next<std::uint64_t>();
  base.errorCode = P4Runtime::ErrorCode{source.next<std::uint8_t>()};
  base.deleted = valueFrom<bool>(source);
  const Ostra::OstraStatusEntry made{base, keyOf(source)};
  Korm::assertTrue(Korm::strepToValue<Ostra::OstraStatusEntry>(Korm::valueToStrep(made)) == made,
                   "a status entry round-trips");
}

void name(Bytes bytes) {
  const std::string text = textOf(bytes);
  for (const std::string& tried : {text, "flow-" + text}) {
    unsigned long number = 0;
    if (std::sscanf(tried.c_str(), "flow-%lu", &number) <= 0) {
      number = 0;
    }
    const std::uint64_t read = Ostra::flowIdFromName(tried);
    Korm::assertTrue(read == number, "a flow name is read as sscanf reads it");
    Korm::assertTrue(Ostra::flowIdFromName(Ostra::buildFlowName(read)) == read,
                     "a flow name round-trips");
  }
}

void address(Bytes bytes) {
  const std::string text = textOf(bytes);
  checkIp(text);
  checkMac(text);
}

}  // namespace Fuzz
