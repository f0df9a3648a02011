// A JSON value (RFC 8259), stored as its text.
//
//   Json line{{"type", "result"}, {"handle", handle}};
//   line.add("message", text);
//   out << line << '\n';
//
// Members stay in the order in which they are added. Bytes that are not UTF-8 are replaced by
// U+FFFD, so that every text is JSON. Only adding allocates, so an object can be destroyed when
// memory has run out.
//
// Threads: a value, on one thread at a time.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace Cli {

class Json {
 public:
  using Member = std::pair<std::string_view, Json>;

  [[nodiscard]] static Json object() { return Json{'{', '}'}; }
  [[nodiscard]] static Json array() { return Json{'[', ']'}; }
  // An object.
  Json(std::initializer_list<Member> members);

  // The type of a value decides how it is written.
  Json(bool value) : text_{value ? "true" : "false"} {}  // NOLINT(google-explicit-constructor)
  template <std::integral Integer>
  Json(Integer value) : text_{std::to_string(value)} {}  // NOLINT(google-explicit-constructor)
  // The shortest text that reads back as the same number; null for NaN and infinity.
  Json(double value);             // NOLINT(google-explicit-constructor)
  Json(std::string_view value);   // NOLINT(google-explicit-constructor)
  Json(const std::string& value)  // NOLINT(google-explicit-constructor)
      : Json{std::string_view{value}} {}
  Json(const char* value) : Json{std::string_view{value}} {}  // NOLINT(google-explicit-constructor)

  // Adds a member.
  // Requires: this is an object without one of that name.
  void add(std::string_view name, const Json& value);
  // Adds an element.
  // Requires: this is an array.
  void push(const Json& value);
  // Adds the members of another object.
  // Requires: both are objects, without a name in common.
  void addAll(const Json& members);

  // Whether it is an object or an array with nothing in it.
  [[nodiscard]] bool isEmpty() const noexcept { return end_ != 0 && text_.size() == 1; }

  // In one line.
  friend std::ostream& operator<<(std::ostream& out, const Json& json);

 private:
  Json(char start, char end) : text_{start}, end_{end} {}
  void next();
  void append(const Json& value);

  std::string text_;  // without its end
  char end_ = 0;      // of an object or an array; 0 for the others
};

}  // namespace Cli
