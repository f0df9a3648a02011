// A line of the command language as words, and the error for a line that makes no sense.
//
// Ownership: a Words and the words that it returns refer to the line, which must outlive them.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Cli {

// A command that makes no sense. what() says what was read and what was expected, in one line of
// printable characters; the reader of the commands adds the place.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws the CommandError of a word (empty: the end of the line) that is not what was expected,
// with the near match, if there is one, as a question.
[[noreturn]] void throwUnexpected(std::string_view read, std::string_view expected,
                                  std::string_view nearMatch = {});

// A text from the input for a message: in quotes, without control characters, and not too long.
[[nodiscard]] std::string quoted(std::string_view text);

// The words of one line in order. Blanks separate words. A word that starts with '#' starts a
// comment; within a word a '#' has no meaning.
class Words {
 public:
  explicit Words(std::string_view line) noexcept : rest_{line} { skip(); }

  // Whether only blanks and a comment are left.
  [[nodiscard]] bool done() const noexcept { return word_.empty(); }
  // The next word; empty when done.
  [[nodiscard]] std::string_view peek() const noexcept { return word_; }
  // Takes the next word.
  // Throws: CommandError when there is none.
  std::string_view take(std::string_view expected);
  // Takes the next word if it is this one; false when it is not.
  bool takeIf(std::string_view word) noexcept;
  // Takes everything that is left, without a comment and without the blanks around it.
  std::string_view takeRest() noexcept;
  // Throws: CommandError when there are words left.
  void end() const;

 private:
  void skip() noexcept;

  std::string_view word_;
  std::string_view rest_;  // behind word_
};

// A word of the form name=value.
struct Assignment {
  std::string_view name;
  std::string_view value{};
  bool assigned = false;  // false: there is no '=', and all of the word is the name
};
[[nodiscard]] Assignment splitAssignment(std::string_view word) noexcept;

}  // namespace Cli
