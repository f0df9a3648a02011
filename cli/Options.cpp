#include "cli/Options.h"

#include <array>

#include "cli/RightsOptions.h"
#include "cli/language/Values.h"
#include "sim/SharedNames.h"

namespace Cli {
namespace {

using Word = OptionWord<Options>;

void leftoverIs(Options& options, Sim::Leftover leftover) {
  if (options.leftover != Sim::Leftover::refuse_ && options.leftover != leftover) {
    throw CommandError{"read both --resume and --discard, expected one of them"};
  }
  options.leftover = leftover;
}

constexpr std::array optionWords{
    Word{"--json", "", [](Options& options, std::string_view) { options.json = true; }},
    Word{"--stopped", "", [](Options& options, std::string_view) { options.stopped = true; }},
    Word{"--keep-going", "", [](Options& options, std::string_view) { options.keepGoing = true; }},
    Word{"-k", "", [](Options& options, std::string_view) { options.keepGoing = true; }},
    Word{"--audit", "", [](Options& options, std::string_view) { options.audit = true; }},
    Word{"--trace", "N",
         [](Options& options, std::string_view level) {
           options.traceLevel = static_cast<int>(parseNumber<std::uint8_t>(level, "--trace"));
         }},
    Word{"--clock", "real|steps",
         [](Options& options, std::string_view clock) {
           if (clock != "real" && clock != "steps") {
             throwUnexpected("--clock " + std::string{clock}, "--clock real or --clock steps");
           }
           options.clockSteps = clock == "steps";
         }},
    Word{"--shm", "NAME",
         [](Options& options, std::string_view name) {
           if (const std::string fault = Sim::sharedNameFault(name); !fault.empty()) {
             throw CommandError{"read --shm " + quoted(name) + ", " + fault};
           }
           options.shm = name;
         }},
    Word{"--resume", "",
         [](Options& options, std::string_view) { leftoverIs(options, Sim::Leftover::resume_); }},
    Word{"--discard", "",
         [](Options& options, std::string_view) { leftoverIs(options, Sim::Leftover::discard_); }},
    groupWord<Options>,
    trustWord<Options>,
    Word{"--verify", "", [](Options& options, std::string_view) { options.verify = true; }},
    Word{"--help", "", [](Options& options, std::string_view) { options.help = true; }},
    Word{"--version", "", [](Options& options, std::string_view) { options.version = true; }},
};

constexpr std::string_view usageText =
    R"(Usage: ostra-sim [options] [FILE...]

Plays the commands in the FILEs through an embedded switch and prints what came of them. Standard
input is read where a FILE is - or where there is none; on a terminal that is a prompt.

  --json               one JSON object a line instead of text
  --stopped            start with the library not yet created ('start' creates it)
  -k, --keep-going     report a bad command and carry on; the exit status is 2 at the end
  --audit              audit the switch after every batch, and end the run, with exit status 2,
                       at the first fault that no command of the script has made by hand
  --trace N            write the text trace of levels 0 to N to standard error
  --clock real|steps   'steps' is 0 at launch and one second later before each command, so that
                       a run repeats to the letter; 'real', the default, is the system clock
  --shm NAME           keep the tables and the trace ring in named shared memory, where
                       'ostra-show NAME' reads them. One that is killed leaves its tables
  --resume             go on with the tables that a killed process has left under NAME
  --discard            remove the tables that a killed process has left under NAME
  --shm-group GROUP    let the GROUP, a name or a number, read that memory; otherwise only its
                       user can
  --trust-owner        go on with, or remove, what belongs to another user
  --verify             check every invariant after each command; a fault ends in an abort
  --help               print this
  --version            print the version

The command 'help' lists the commands. Exit status: 0 when every command was understood, 2 for a
command line or a command that makes no sense, 1 for an internal failure.
)";

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
      taken = applyOption(arguments, optionWords, "an option or a FILE", options);
    }
    arguments = arguments.subspan(taken);
  }
  const bool forShared = options.leftover != Sim::Leftover::refuse_ || options.rights.group ||
                         options.rights.trustOtherUsers;
  if (forShared && options.shm.empty()) {
    throw UsageError{
        "read --resume, --discard, --shm-group or --trust-owner, expected --shm NAME with it"};
  }
  if (options.files.empty()) {
    options.files.emplace_back("-");
  }
  return options;
}

std::string_view usage() noexcept { return usageText; }

}  // namespace Cli
