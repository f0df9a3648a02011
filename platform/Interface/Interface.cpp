#include "platform/Interface/Interface.h"

#include <algorithm>
#include <string>

#include "platform/Korm/Exceptions.h"

namespace Interface {

IntfId::IntfId(std::string_view name) : length_{static_cast<std::uint8_t>(name.size())} {
  if (name.size() > maxLength) {
    Korm::throwRangeException("IntfId::name '" + std::string{name} + "' longer than " +
                              std::to_string(maxLength) + " characters not allowed");
  }
  std::copy(name.begin(), name.end(), name_.begin());
}

IntfId IntfId::shortName() const {
  const std::string_view full = name();
  const auto number = full.find_first_of("0123456789");
  if (number == std::string_view::npos || number <= 2) {
    return *this;
  }
  return IntfId{std::string{full.substr(0, 2)}.append(full.substr(number))};
}

}  // namespace Interface
