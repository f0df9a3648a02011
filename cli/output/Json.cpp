#include "cli/output/Json.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <ostream>

#include "platform/Korm/Text.h"

namespace Cli {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

// The length of the UTF-8 character at the front of a text that is not empty; 0 when there is none
// (Unicode 15.0, table 3-7).
std::size_t characterLength(std::string_view text) noexcept {
  const auto byte = [text](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first < 0xC2   ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  // What follows the first byte is narrower where the character could be written shorter, is a
  // surrogate, or lies beyond the last one.
  const unsigned least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const unsigned most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (length == 0 || byte(1) < least || byte(1) > most) {
    return 0;
  }
  for (std::size_t at = 2; at < length; ++at) {
    if (byte(at) < 0x80 || byte(at) > 0xBF) {
      return 0;
    }
  }
  return length;
}

void appendControl(std::string& to, char c) {
  static constexpr std::string_view named = "\b\t\n\f\r";
  if (const std::size_t at = named.find(c); at != std::string_view::npos) {
    to.append({'\\', "btnfr"[at]});
  } else {
    Korm::appendHex(to.append("\\u00"), static_cast<std::uint8_t>(c));
  }
}

void appendText(std::string& to, std::string_view text) {
  to += '"';
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length == 0) {
      to += replacement;
    } else if (static_cast<unsigned char>(text.front()) < 0x20) {
      appendControl(to, text.front());
    } else {
      if (text.front() == '"' || text.front() == '\\') {
        to += '\\';
      }
      to += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  to += '"';
}

}  // namespace

Json::Json(std::initializer_list<Member> members) : Json{'{', '}'} {
  for (const Member& member : members) {
    add(member.first, member.second);
  }
}

Json::Json(double value) {
  std::array<char, 32> digits;
  text_ =
      std::isfinite(value)
          ? std::string_view{digits.data(),
                             std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr}
          : "null";
}

Json::Json(std::string_view value) { appendText(text_, value); }

void Json::next() {
  if (!isEmpty()) {
    text_ += ',';
  }
}

void Json::append(const Json& value) {
  text_ += value.text_;
  if (value.end_ != 0) {
    text_ += value.end_;
  }
}

void Json::add(std::string_view name, const Json& value) {
  next();
  appendText(text_, name);
  text_ += ':';
  append(value);
}

void Json::push(const Json& value) {
  next();
  append(value);
}

void Json::addAll(const Json& members) {
  if (!members.isEmpty()) {
    next();
    text_.append(members.text_, 1);
  }
}

std::ostream& operator<<(std::ostream& out, const Json& json) {
  out << json.text_;
  if (json.end_ != 0) {
    out << json.end_;
  }
  return out;
}

}  // namespace Cli
