// Text forms ("streps") of values: how the framework prints them, parses them, and accesses the
// attributes of a value by name.
//
// Unsigned numbers are decimal without sign or leading zeros; bools are True and False. A parser
// accepts exactly what the printer prints.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/Korm/Exceptions.h"

namespace Korm {

[[nodiscard]] std::string strep(std::integral auto value) {
  if constexpr (std::same_as<decltype(value), bool>) {
    return value ? "True" : "False";
  } else {
    return std::to_string(value);
  }
}

// Parses a text that the caller owns, and keeps the caller's iterator behind what it has read.
// Throws: every operation that fails throws ParseException, which says the offset, what was
// expected and what was found. One that reads an attribute throws DeserializationException with its
// name.
class StrepReader {
 public:
  using Iterator = std::string::const_iterator;

  StrepReader(Iterator& current, Iterator end) : current_{current}, start_{current}, end_{end} {}

  void literal(std::string_view expected);
  // Reads the literal if it comes next; false when it does not.
  [[nodiscard]] bool maybeLiteral(std::string_view expected);
  // A number above `max` is an error.
  [[nodiscard]] std::uint64_t unsignedAttribute(std::string_view attribute,
                                                std::uint64_t max = UINT64_MAX);
  [[nodiscard]] std::int64_t signedAttribute(std::string_view attribute, std::int64_t min,
                                             std::int64_t max);
  [[nodiscard]] bool boolAttribute(std::string_view attribute);
  // The characters up to, not including, the first one in `stops`, or to the end.
  [[nodiscard]] std::string_view until(std::string_view stops);
  [[nodiscard]] std::string_view rest() const { return {current_, end_}; }
  [[nodiscard]] bool atEnd() const { return current_ == end_; }

  // Reads a value with its own parser. A RangeException of the parser becomes a
  // DeserializationException with the name of the attribute.
  template <class Read>
  auto attribute(std::string_view name, Read read) {
    try {
      return read(current_, end_);
    } catch (const RangeException& error) {
      throw DeserializationException{std::string{name}, error.what()};
    }
  }

  [[noreturn]] void fail(std::string_view expected) const;
  [[noreturn]] void failAttribute(std::string_view attribute, std::string_view reason) const;

 private:
  Iterator& current_;
  const Iterator start_;
  const Iterator end_;
};

// The text form of any value: by its own valueToStrep(), otherwise by its stream output.
template <class T>
[[nodiscard]] std::string valueToStrep(const T& value) {
  if constexpr (requires { value.valueToStrep(); }) {
    return value.valueToStrep();
  } else if constexpr (requires { strep(value); }) {
    return strep(value);
  } else {
    std::ostringstream out;
    out << value;
    return std::move(out).str();
  }
}

// Parses a whole text with the constructor T(current, end).
// Throws: ParseException also when something follows the value.
template <class T>
[[nodiscard]] T strepToValue(const std::string& text) {
  auto current = text.begin();
  T value(current, text.end());
  if (current != text.end()) {
    throw ParseException{"offset " + std::to_string(current - text.begin()) +
                         ": expected the end of the text, found '" +
                         std::string{current, text.end()} + "'"};
  }
  return value;
}

// One attribute of a value type, for generic access. It can only be read when `write` is null.
template <class T>
struct GenericAttribute {
  std::string_view name;
  std::string (*read)(const T&);
  void (*write)(T&, const std::string& text);
};

// Generic access to a value type that lists its attributes in a static `genericAttributes()`.
template <class T>
class Generic {
 public:
  explicit Generic(T& value) : value_{value} {}

  [[nodiscard]] std::string attribute(std::string_view name) const {
    return find(name).read(value_);
  }
  void attributeIs(std::string_view name, const std::string& text) {
    const auto& attribute = find(name);
    if (attribute.write == nullptr) {
      throw AttributeException{"attribute '" + std::string{name} + "' can only be read"};
    }
    attribute.write(value_, text);
  }
  [[nodiscard]] std::string strep() const { return valueToStrep(value_); }
  [[nodiscard]] bool empty() const { return !value_; }
  [[nodiscard]] bool equals(const T& other) const { return value_ == other; }
  [[nodiscard]] std::size_t hash() const { return std::hash<std::string>{}(strep()); }

 private:
  [[nodiscard]] static const GenericAttribute<T>& find(std::string_view name) {
    for (const GenericAttribute<T>& attribute : T::genericAttributes()) {
      if (attribute.name == name) {
        return attribute;
      }
    }
    throw AttributeException{"no attribute '" + std::string{name} + "'"};
  }

  T& value_;
};

}  // namespace Korm
