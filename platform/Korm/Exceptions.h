// The framework's failures: the range exception, the parse errors, and the assertion.
//
// Threads: everything here may be called from any thread.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Korm {

// The last folder and the name of a source file, without its ending: "Ostra/OstraSm" for
// ".../Ostra/OstraSm.cpp". A text without an ending is returned as it is.
[[nodiscard]] constexpr std::string_view sourceUnit(std::string_view file) noexcept {
  if (const auto dot = file.rfind('.'); dot != std::string_view::npos) {
    file = file.substr(0, dot);
    if (const auto name = file.rfind('/'); name != std::string_view::npos && name != 0) {
      if (const auto folder = file.rfind('/', name - 1); folder != std::string_view::npos) {
        file.remove_prefix(folder + 1);
      }
    }
  }
  return file;
}

// A value outside the range of its type. what() is exactly the message given.
class RangeException : public std::range_error {
 public:
  using std::range_error::range_error;
};

// A text that is not the text form of a value. what() says what was expected, and where.
class ParseException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The text is well formed, but one attribute has a value that its type refuses.
class DeserializationException : public ParseException {
 public:
  DeserializationException(std::string attribute, const std::string& reason)
      : ParseException("attribute '" + attribute + "': " + reason),
        attribute_{std::move(attribute)} {}
  [[nodiscard]] const std::string& attribute() const noexcept { return attribute_; }

 private:
  std::string attribute_;
};

// A value's generic interface has no such attribute, or the attribute cannot be written.
class AttributeException : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

[[noreturn]] void throwRangeException(const std::string& message);

// Prints `Assertion failed: TEXT (UNIT:LINE)` on standard error and aborts, in every build type.
[[noreturn]] void assertionFailed(const char* text, std::string_view unit, int line) noexcept;

// Aborts the process when `condition` is false. `text` says in words or as code what must hold.
constexpr void assertTrue(bool condition, const char* text, const char* file = __builtin_FILE(),
                          int line = __builtin_LINE()) noexcept {
  if (!condition) [[unlikely]] {
    assertionFailed(text, sourceUnit(file), line);
  }
}

}  // namespace Korm
