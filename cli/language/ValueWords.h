// Words of the form name=VALUE, described as tables.
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "cli/language/NearMatch.h"
#include "cli/language/Values.h"
#include "cli/language/Words.h"

namespace Cli {

// How a word name=VALUE, or the word `name` of a flag, is applied to a T. `apply` gets the value
// and the name for messages.
template <class T>
struct ValueWord {
  std::string_view name;
  void (*apply)(T& target, std::string_view value, std::string_view name);
  bool flag = false;          // the word has no value
  std::string_view syntax{};  // of the value, for the help
};

namespace detail {

template <class>
struct MemberOf;
template <class Class, class Value>
struct MemberOf<Value Class::*> {
  using Target = Class;
  using Type = Value;
};

}  // namespace detail

// The `apply` of a word whose number is stored in that data member.
template <auto member>
inline constexpr auto putNumber = [](typename detail::MemberOf<decltype(member)>::Target& target,
                                     std::string_view value, std::string_view name) {
  target.*member = parseNumber<typename detail::MemberOf<decltype(member)>::Type>(value, name);
};

// The entry of that name in a table of named things, or null.
template <class Table>
[[nodiscard]] auto findWord(const Table& table, std::string_view name) {
  const auto found = std::find_if(table.begin(), table.end(),
                                  [name](const auto& word) { return word.name == name; });
  return found == table.end() ? nullptr : &*found;
}

// Throws the CommandError for a word that came before.
[[noreturn]] void throwTwice(std::string_view word);
// Throws: CommandError unless there is a '='.
void requireValue(const Assignment& word);
// Throws: CommandError if there is one.
void requireNoValue(const Assignment& word);

// Records which words of a table have been read.
template <std::size_t count>
class SeenWords {
 public:
  // Throws: CommandError if the word has been read before.
  template <class Table, class Word>
  void add(const Table& table, const Word& word) {
    if (std::exchange(seen_[static_cast<std::size_t>(&word - table.data())], true)) {
      throwTwice(word.name);
    }
  }
  [[nodiscard]] bool has(std::size_t index) const noexcept { return seen_[index]; }

 private:
  std::array<bool, count> seen_{};
};

// Applies the word to `target` if it is in the table; each word may come once.
template <class T, std::size_t count>
[[nodiscard]] bool applyWord(const std::array<ValueWord<T>, count>& table, SeenWords<count>& seen,
                             const Assignment& word, T& target) {
  const ValueWord<T>* const known = findWord(table, word.name);
  if (known == nullptr) {
    return false;
  }
  known->flag ? requireNoValue(word) : requireValue(word);
  seen.add(table, *known);
  known->apply(target, word.value, known->name);
  return true;
}

// Reads all remaining words, which must be in the table. The first `required` ones are mandatory.
template <class T, std::size_t count>
void applyWords(Words& words, const std::array<ValueWord<T>, count>& table, std::size_t required,
                T& target) {
  std::string expected;
  for (const ValueWord<T>& known : table) {
    expected.append(expected.empty() ? "" : ", ").append(known.name).append("=");
  }
  SeenWords<count> seen;
  while (!words.done()) {
    const std::string_view read = words.take(expected);
    const Assignment word = splitAssignment(read);
    if (!applyWord(table, seen, word, target)) {
      throwUnexpected(read, "one of " + expected, nearMatch(word.name, table));
    }
  }
  for (std::size_t at = 0; at < required; ++at) {
    if (!seen.has(at)) {
      throwUnexpected({}, std::string{table[at].name} + "=");
    }
  }
}

}  // namespace Cli
