// The commands as a table: name, grammar, help and what each does.
//
// Threads: one thread. The table is a constant.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "cli/language/Words.h"
#include "cli/output/Printer.h"

namespace Cli {

class Interpreter;

struct Command {
  std::string_view name;  // one word or more
  std::string_view grammar;
  std::string_view summary;
  // Reads all words after the name, and executes the command.
  // Throws: CommandError, with nothing changed, for words that are not in the grammar.
  void (*handler)(Interpreter& interpreter, Words& words);
};

[[nodiscard]] std::span<const Command> commands() noexcept;

// Takes the name of a command, and returns the command.
// Throws: CommandError when there is none.
[[nodiscard]] const Command& takeCommand(Words& words);

// Takes all words, and returns what `help` shows: the commands whose names start with the words.
// Throws: CommandError when there are none.
[[nodiscard]] std::vector<HelpEntry> takeHelp(Words& words);

}  // namespace Cli
