#include "cli/language/Words.h"

#include "platform/Korm/Text.h"

namespace Cli {
namespace {

constexpr std::string_view blanks = " \t\r\v\f";
constexpr std::size_t longestQuote = 60;

}  // namespace

std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char character : text.substr(0, longestQuote)) {
    const auto code = static_cast<unsigned char>(character);
    if (code < 0x20 || code == 0x7F) {
      Korm::appendHex(result.append("\\x"), code);
    } else {
      result += character;
    }
  }
  return result += text.size() > longestQuote ? "...'" : "'";
}

void throwUnexpected(std::string_view read, std::string_view expected, std::string_view nearMatch) {
  std::string message = "read ";
  message += read.empty() ? "the end of the line" : quoted(read);
  message.append(", expected ").append(expected);
  if (!nearMatch.empty()) {
    message.append("; did you mean '").append(nearMatch).append("'?");
  }
  throw CommandError{message};
}

std::string_view Words::take(std::string_view expected) {
  if (done()) {
    throwUnexpected({}, expected);
  }
  const std::string_view word = word_;
  skip();
  return word;
}

bool Words::takeIf(std::string_view word) noexcept {
  if (word_ != word) {
    return false;
  }
  skip();
  return true;
}

std::string_view Words::takeRest() noexcept {
  if (done()) {
    return {};
  }
  const char* const begin = word_.data();
  const char* end = begin;
  for (; !done(); skip()) {
    end = word_.data() + word_.size();
  }
  return {begin, static_cast<std::size_t>(end - begin)};
}

void Words::end() const {
  if (!done()) {
    throwUnexpected(word_, "the end of the line");
  }
}

void Words::skip() noexcept {
  const std::size_t start = rest_.find_first_not_of(blanks);
  if (start == std::string_view::npos || rest_[start] == '#') {
    word_ = {};
    rest_ = {};
    return;
  }
  rest_.remove_prefix(start);
  word_ = rest_.substr(0, rest_.find_first_of(blanks));
  rest_.remove_prefix(word_.size());
}

Assignment splitAssignment(std::string_view word) noexcept {
  const std::size_t sign = word.find('=');
  if (sign == std::string_view::npos) {
    return {.name = word};
  }
  return {.name = word.substr(0, sign), .value = word.substr(sign + 1), .assigned = true};
}

}  // namespace Cli
