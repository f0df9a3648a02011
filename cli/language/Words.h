// A line of the command language as words, and what is said of a line that makes no sense.
//
// Thread and process rule: values without state that is shared.
// Ownership: a Words looks at a line that outlives it, and so do the words it hands out.
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

// A text from the input as a message shows it: in quotes, without control characters, not too long.
[[nodiscard]] std::string quoted(std::string_view text);

// The words of one line, front to back. Blanks separate words; a word that starts with '#' starts a
// comment. Within a word a '#' is a character like any other.
class Words {
 public:
  explicit Words(std::string_view line) noexcept : rest_{line} { skip(); }

  // Whether only blanks and a comment are left.
  [[nodiscard]] bool done() const noexcept { return word_.empty(); }
  // The next word; empty when done.
  [[nodiscard]] std::string_view peek() const noexcept { return word_; }
  // The next word, and moves past it.
  // Throws: CommandError when there is none.
  std::string_view take(std::string_view expected);
  // The next word if it is this one.
  bool takeIf(std::string_view word) noexcept;
  // All that is left, up to a comment, without the blanks around it; done after that.
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
