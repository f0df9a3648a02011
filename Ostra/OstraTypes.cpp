#include "Ostra/OstraTypes.h"

#include <limits>
#include <ostream>

#include "platform/Korm/Strep.h"

namespace Ostra {
namespace {

constexpr std::string_view opening = "Value('Ostra::OstraKey', ** {'tableType': ";

template <class T>
std::string text(const T& value) {
  if constexpr (requires { value.text(); }) {
    return value.text();
  } else {
    return Korm::strep(value);
  }
}

template <class Address, class Parse>
Address readAddress(Korm::StrepReader& reader, std::string_view name, Parse parse) {
  const std::string_view found = reader.until("&'");
  if (const auto address = parse(found)) {
    return *address;
  }
  reader.failAttribute(name, "expected an address before");
}

template <class T>
T read(Korm::StrepReader& reader, std::string_view name) {
  if constexpr (std::is_same_v<T, bool>) {
    return reader.boolAttribute(name);
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(reader.unsignedAttribute(name, std::numeric_limits<T>::max()));
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return readAddress<T>(reader, name, Korm::parseEthAddr);
  } else {
    return reader.maybeLiteral("-") ? T{} : readAddress<T>(reader, name, Korm::parseIpAddr);
  }
}

}  // namespace

std::string OstraKey::valueToStrep() const {
  std::string result{opening};
  result += Korm::strep(tableType_);
  result += ", 'priorityGroupType': " + Korm::strep(priorityGroupType_);
  result += ", 'priority': " + Korm::strep(priority_);
  forEachField([&result](std::string_view name, const auto& field) {
    using T = decltype(field.value);
    if (field.given || !(field.value == T{}) || !(field.mask == T{})) {
      result.append(", '").append(name).append(field.given ? "': '" : "': !'");
      result += text(field.value) + "&" + text(field.mask) + "'";
    }
  });
  return result + "})";
}

OstraKey::OstraKey(std::string::const_iterator& current, std::string::const_iterator end) {
  const auto start = current;
  Korm::StrepReader reader{current, end};
  constexpr std::int64_t least = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  reader.literal(opening);
  tableType_ = static_cast<std::int32_t>(reader.signedAttribute("tableType", least, most));
  reader.literal(", 'priorityGroupType': ");
  priorityGroupType_ = static_cast<std::uint32_t>(
      reader.unsignedAttribute("priorityGroupType", std::numeric_limits<std::uint32_t>::max()));
  reader.literal(", 'priority': ");
  priority_ = static_cast<std::int32_t>(reader.signedAttribute("priority", least, most));
  forEachField([&](auto id, const auto& field, auto put) {
    using T = std::remove_cvref_t<decltype(field.value)>;
    const std::string name = matchFieldName(id);
    if (reader.maybeLiteral(", '" + name + "': ")) {
      const bool isGiven = !reader.maybeLiteral("!");
      reader.literal("'");
      const T value = read<T>(reader, name);
      reader.literal("&");
      const T mask = read<T>(reader, name);
      reader.literal("'");
      put(value, mask);
      givenIs(id, isGiven);
    }
  });
  reader.literal("})");
  if (const std::string printed = valueToStrep();
      !std::equal(start, current, printed.begin(), printed.end())) {
    throw Korm::ParseException{"expected '" + printed +
                               "', the only spelling of this key, found '" +
                               std::string{start, current} + "'"};
  }
}

std::ostream& operator<<(std::ostream& out, const OstraKey& key) {
  return out << key.valueToStrep();
}

}  // namespace Ostra
