// The commands as a table: name, grammar, help and what each does.
//
// Thread and process rule: one thread. The table is a constant.
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
  // Reads the words behind the name, all of them, and acts.
  // Throws: CommandError, with nothing changed, for words that are not in the grammar.
  void (*handler)(Interpreter& interpreter, Words& words);
};

[[nodiscard]] std::span<const Command> commands() noexcept;

// The command that the words start with, and moves behind its name.
// Throws: CommandError when there is none.
[[nodiscard]] const Command& takeCommand(Words& words);

// What `help` shows: every command, or those whose names start with the words, which are all taken.
// Throws: CommandError when there are none.
[[nodiscard]] std::vector<HelpEntry> takeHelp(Words& words);

}  // namespace Cli
