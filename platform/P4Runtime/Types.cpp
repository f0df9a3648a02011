#include "platform/P4Runtime/Types.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <ostream>

#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Text.h"

namespace P4Runtime {
namespace {

constexpr Korm::EnumTexts<ErrorCode, 10> codeTexts{{
    {ErrorCode::success_, "success"},
    {ErrorCode::hardwareResourceExhausted_, "hardwareResourceExhausted"},
    {ErrorCode::actionNotSupported_, "actionNotSupported"},
    {ErrorCode::matchNotSupported_, "matchNotSupported"},
    {ErrorCode::undefinedBehavior_, "undefinedBehavior"},
    {ErrorCode::notAllowed_, "notAllowed"},
    {ErrorCode::invalidArgument_, "invalidArgument"},
    {ErrorCode::notFound_, "notFound"},
    {ErrorCode::invalidMask_, "invalidMask"},
    {ErrorCode::hardwareError_, "hardwareError"},
}};

}  // namespace

std::ostream& operator<<(std::ostream& out, EntryHandle handle) {
  return out << static_cast<std::uint64_t>(handle);
}

std::string errorCodeText(ErrorCode code) {
  const std::string_view text = Korm::enumText(codeTexts, code);
  return text.empty() ? std::to_string(static_cast<std::uint32_t>(code)) : std::string{text};
}

ErrorCode parseErrorCode(std::string::const_iterator& current, std::string::const_iterator end) {
  const auto stop = std::find_if_not(
      current, end, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
  const std::string text{current, stop};
  const auto named = std::find_if(codeTexts.begin(), codeTexts.end(),
                                  [&text](const auto& known) { return known.second == text; });
  std::uint32_t number = 0;
  if (named != codeTexts.end()) {
    number = static_cast<std::uint32_t>(named->first);
  } else {
    std::from_chars(text.data(), text.data() + text.size(), number);
  }
  if (errorCodeText(ErrorCode{number}) != text) {
    Korm::throwRangeException("ErrorCode::value '" + text + "' not allowed");
  }
  current = stop;
  return ErrorCode{number};
}

std::ostream& operator<<(std::ostream& out, ErrorCode code) { return out << errorCodeText(code); }

}  // namespace P4Runtime
