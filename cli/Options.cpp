#include "cli/Options.h"

#include <algorithm>
#include <array>

#include "cli/language/NearMatch.h"
#include "cli/language/Values.h"
#include "cli/language/Words.h"
#include "sim/SharedNames.h"

namespace Cli {
namespace {

struct OptionWord {
  std::string_view name;
  std::string_view argument;  // what it is called; empty: the option takes none
  void (*apply)(Options& options, std::string_view argument);
};

constexpr std::array optionWords{
    OptionWord{"--json", "", [](Options& options, std::string_view) { options.json = true; }},
    OptionWord{"--stopped", "", [](Options& options, std::string_view) { options.stopped = true; }},
    OptionWord{"--keep-going", "",
               [](Options& options, std::string_view) { options.keepGoing = true; }},
    OptionWord{"-k", "", [](Options& options, std::string_view) { options.keepGoing = true; }},
    OptionWord{"--trace", "N",
               [](Options& options, std::string_view level) {
                 options.traceLevel = static_cast<int>(parseNumber<std::uint8_t>(level, "--trace"));
               }},
    OptionWord{"--clock", "real|steps",
               [](Options& options, std::string_view clock) {
                 if (clock != "real" && clock != "steps") {
                   throwUnexpected("--clock " + std::string{clock},
                                   "--clock real or --clock steps");
                 }
                 options.clockSteps = clock == "steps";
               }},
    OptionWord{"--shm", "NAME",
               [](Options& options, std::string_view name) {
                 if (const std::string fault = Sim::sharedNameFault(name); !fault.empty()) {
                   throw CommandError{"read --shm " + quoted(name) + ", " + fault};
                 }
                 options.shm = name;
               }},
    OptionWord{"--help", "", [](Options& options, std::string_view) { options.help = true; }},
    OptionWord{"--version", "", [](Options& options, std::string_view) { options.version = true; }},
};

constexpr std::string_view usageText =
    R"(Usage: ostra-sim [options] [FILE...]

Plays the commands in the FILEs through an embedded switch and prints what came of them. Standard
input is read where a FILE is - or where there is none; on a terminal that is a prompt.

  --json               one JSON object a line instead of text
  --stopped            start with the library not yet created ('start' creates it)
  -k, --keep-going     report a bad command and carry on; the exit status is 2 at the end
  --trace N            write the text trace of levels 0 to N to standard error
  --clock real|steps   'steps' is 0 at launch and one second later before each command, so that a run
                       repeats to the letter; 'real', the default, is the system clock
  --shm NAME           keep the tables and the trace ring in named shared memory, where
                       'ostra-show NAME' reads them
  --help               print this
  --version            print the version

The command 'help' lists the commands. Exit status: 0 when every command was understood, 2 for a
command line or a command that makes no sense, 1 for an internal failure.
)";

// "--name=value" as its parts; a short option has no value in the same word.
Assignment splitOption(std::string_view word) {
  return word.starts_with("--") ? splitAssignment(word) : Assignment{.name = word};
}

// Applies the option at the front and returns how many of the arguments it took.
std::size_t applyOption(std::span<const char* const> arguments, Options& options) {
  const Assignment word = splitOption(arguments.front());
  const auto* const known =
      std::find_if(optionWords.begin(), optionWords.end(),
                   [&word](const OptionWord& option) { return option.name == word.name; });
  if (known == optionWords.end()) {
    throwUnexpected(arguments.front(), "an option or a FILE", nearMatch(word.name, optionWords));
  }
  if (known->argument.empty()) {
    if (word.assigned) {
      throwUnexpected(arguments.front(), known->name);
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
}

}  // namespace

Options parseOptions(std::span<const char* const> arguments) {
  Options options;
  bool onlyFiles = false;
  while (!arguments.empty()) {
    const std::string_view word = arguments.front();
    std::size_t taken = 1;
    if (onlyFiles || word == "-" || !word.starts_with('-')) {
      options.files.emplace_back(word);
    } else if (word == "--") {
      onlyFiles = true;
    } else {
      try {
        taken = applyOption(arguments, options);
      } catch (const CommandError& error) {
        throw UsageError{error.what()};
      }
    }
    arguments = arguments.subspan(taken);
  }
  if (options.files.empty()) {
    options.files.emplace_back("-");
  }
  return options;
}

std::string_view usage() noexcept { return usageText; }

}  // namespace Cli
