// A program's options as a table of words, and the parser of command lines that uses it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "cli/language/NearMatch.h"
#include "cli/language/Words.h"

namespace Cli {

// A command line that makes no sense. what() says what was read and what was expected.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <class Options>
struct OptionWord {
  std::string_view name;
  std::string_view argument;  // its name in messages; empty when the option takes none
  // Throws: CommandError for an argument that makes no sense.
  void (*apply)(Options& options, std::string_view argument);
};

// Applies the option at the front, "--name VALUE", "--name=VALUE" or "--name", and returns how many
// of the arguments it took. `expected` is for the message when the word is not an option.
// Throws: UsageError.
template <class Options, std::size_t size>
std::size_t applyOption(std::span<const char* const> arguments,
                        const std::array<OptionWord<Options>, size>& words,
                        std::string_view expected, Options& options) {
  const std::string_view front = arguments.front();
  // A short option has no value in the same word.
  const Assignment word =
      front.starts_with("--") ? splitAssignment(front) : Assignment{.name = front};
  const auto known = std::find_if(words.begin(), words.end(),
                                  [&word](const auto& option) { return option.name == word.name; });
  try {
    if (known == words.end()) {
      throwUnexpected(front, expected, nearMatch(word.name, words));
    }
    if (known->argument.empty()) {
      if (word.assigned) {
        throwUnexpected(front, known->name);
      }
      known->apply(options, {});
      return 1;
    }
    if (word.assigned) {
      known->apply(options, word.value);
      return 1;
    }
    if (arguments.size() < 2) {
      throw CommandError{"read " + quoted(word.name) + " at the end, expected " +
                         std::string{known->argument} + " behind it"};
    }
    known->apply(options, arguments[1]);
    return 2;
  } catch (const CommandError& error) {
    throw UsageError{error.what()};
  }
}

}  // namespace Cli
