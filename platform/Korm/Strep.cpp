#include "platform/Korm/Strep.h"

#include <algorithm>
#include <charconv>

namespace Korm {
namespace {

// A number in its only spelling: from_chars alone would also take leading zeros and "-0".
template <class Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size() && std::to_string(number) == text;
}

}  // namespace

void StrepReader::literal(std::string_view expected) {
  if (!maybeLiteral(expected)) {
    fail("'" + std::string{expected} + "'");
  }
}

bool StrepReader::maybeLiteral(std::string_view expected) {
  if (!rest().starts_with(expected)) {
    return false;
  }
  current_ += static_cast<std::ptrdiff_t>(expected.size());
  return true;
}

std::uint64_t StrepReader::unsignedAttribute(std::string_view attribute, std::uint64_t max) {
  const std::string_view text =
      rest().substr(0, std::min(rest().find_first_not_of("0123456789"), rest().size()));
  std::uint64_t number = 0;
  if (!readNumber(text, number) || number > max) {
    failAttribute(attribute, "expected an unsigned number up to " + std::to_string(max));
  }
  current_ += static_cast<std::ptrdiff_t>(text.size());
  return number;
}

std::int64_t StrepReader::signedAttribute(std::string_view attribute, std::int64_t min,
                                          std::int64_t max) {
  const std::string_view text =
      rest().substr(0, std::min(rest().find_first_not_of("-0123456789"), rest().size()));
  std::int64_t number = 0;
  if (!readNumber(text, number) || number < min || number > max) {
    failAttribute(attribute,
                  "expected a number from " + std::to_string(min) + " to " + std::to_string(max));
  }
  current_ += static_cast<std::ptrdiff_t>(text.size());
  return number;
}

bool StrepReader::boolAttribute(std::string_view attribute) {
  if (maybeLiteral("True")) {
    return true;
  }
  if (!maybeLiteral("False")) {
    failAttribute(attribute, "expected True or False");
  }
  return false;
}

std::string_view StrepReader::until(std::string_view stops) {
  const std::string_view text =
      rest().substr(0, std::min(rest().find_first_of(stops), rest().size()));
  current_ += static_cast<std::ptrdiff_t>(text.size());
  return text;
}

void StrepReader::fail(std::string_view expected) const {
  constexpr std::size_t shown = 40;
  throw ParseException{"offset " + std::to_string(current_ - start_) + ": expected " +
                       std::string{expected} + ", found '" + std::string{rest().substr(0, shown)} +
                       "'"};
}

void StrepReader::failAttribute(std::string_view attribute, std::string_view reason) const {
  constexpr std::size_t shown = 40;
  throw DeserializationException{std::string{attribute},
                                 std::string{reason} + " at offset " +
                                     std::to_string(current_ - start_) + ", found '" +
                                     std::string{rest().substr(0, shown)} + "'"};
}

}  // namespace Korm
