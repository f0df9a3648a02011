// The values that a trace point accepts and what each becomes in a binary record.
//
// Everything is reduced to six kinds: bool, signed, unsigned, double, text and bytes. A type is
// taken as, in this order:
//   1. what `brisklogArgument(const T&)` returns, a function in the namespace of T: a value of one
//      of the kinds (an integer, a std::string_view into the object, a Bytes, ...). It runs at
//      every call of a trace point, so it must be cheap, and it must not throw;
//   2. bool, an integer, an enumeration (its integer) or a floating point number (a double);
//   3. text, if it converts to std::string_view; a null `const char*` is the text "(null)";
//   4. an unsigned integer, if the class has a conversion to one, explicit or not.
// Anything else does not compile.
//
// The text trace prints a class or a scoped enumeration with its own `operator<<` to std::ostream,
// if it has one. The operator runs only when the text is wanted.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Brisklog {

// Raw bytes as an argument of a trace point, shown as hexadecimal digits. Does not copy them.
struct Bytes {
  const void* data = nullptr;
  std::size_t size = 0;
};

// The values are part of the ring's layout.
enum class ArgumentKind : std::uint8_t {
  none_ = 0,
  bool_ = 1,
  signed_ = 2,
  unsigned_ = 3,
  double_ = 4,
  text_ = 5,
  bytes_ = 6,
};

namespace detail {

template <class T>
concept Customized = requires(const T& value) {
  brisklogArgument(value);
};

template <class T>
concept TextLike = std::is_convertible_v<const T&, std::string_view> && !std::is_null_pointer_v<T>;

template <class T>
concept ExplicitInteger = std::is_class_v<T> && requires(const T& value) {
  static_cast<std::uint64_t>(value);
};

template <class T>
concept Traceable = Customized<T> || std::is_arithmetic_v<T> || std::is_enum_v<T> || TextLike<T> ||
    std::same_as<T, Bytes> || ExplicitInteger<T>;

// The operator is called by its name, so that only the namespace of T is searched and not the
// members of std::ostream: the answer must not depend on whether <ostream> has been included. A
// type that converts to char would match the stream's own operators for characters.
template <class T>
concept Streamable =
    !std::is_arithmetic_v<T> && !std::is_pointer_v<T> && !TextLike<T> &&
    !std::is_convertible_v<const T&, char> && requires(std::ostream & stream, const T& value) {
  operator<<(stream, value);
};

template <class T>
[[nodiscard]] constexpr auto argumentOf(const T& value) noexcept {
  static_assert(Traceable<T>, "give this type a brisklogArgument(const T&)");
  if constexpr (Customized<T>) {
    using Result = decltype(brisklogArgument(value));
    static_assert(std::is_trivially_destructible_v<Result>,
                  "brisklogArgument must not return an owner: only a view of it would be kept");
    return argumentOf(brisklogArgument(value));
  } else if constexpr (std::same_as<T, bool> || std::same_as<T, Bytes>) {
    return value;
  } else if constexpr (std::is_enum_v<T>) {
    return argumentOf(static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::is_floating_point_v<T>) {
    return static_cast<double>(value);
  } else if constexpr (std::signed_integral<T>) {
    return static_cast<std::int64_t>(value);
  } else if constexpr (std::unsigned_integral<T>) {
    return static_cast<std::uint64_t>(value);
  } else if constexpr (std::is_pointer_v<T>) {
    return value == nullptr ? std::string_view("(null)") : std::string_view(value);
  } else if constexpr (TextLike<T>) {
    return std::string_view(value);
  } else {
    return static_cast<std::uint64_t>(value);
  }
}

template <class Value>
[[nodiscard]] consteval ArgumentKind kindOf() {
  if constexpr (std::same_as<Value, bool>) {
    return ArgumentKind::bool_;
  } else if constexpr (std::same_as<Value, std::int64_t>) {
    return ArgumentKind::signed_;
  } else if constexpr (std::same_as<Value, std::uint64_t>) {
    return ArgumentKind::unsigned_;
  } else if constexpr (std::same_as<Value, double>) {
    return ArgumentKind::double_;
  } else if constexpr (std::same_as<Value, std::string_view>) {
    return ArgumentKind::text_;
  } else {
    static_assert(std::same_as<Value, Bytes>);
    return ArgumentKind::bytes_;
  }
}

}  // namespace detail
}  // namespace Brisklog
