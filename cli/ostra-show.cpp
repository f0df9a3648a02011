// ostra-show: prints the tables and the trace of a running ostra-sim, from another process.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/language/NearMatch.h"
#include "cli/language/Words.h"
#include "cli/output/Output.h"
#include "cli/show/Check.h"
#include "cli/show/ShownTable.h"
#include "cli/show/Viewer.h"
#include "platform/Korm/Segment.h"
#include "sim/SharedMemory.h"
#include "sim/SharedNames.h"

namespace {

enum Status { success = 0, nothingThere = 1, badInput = 2 };

constexpr std::chrono::milliseconds interval{100};

constexpr std::array topics{Cli::shownFlows, Cli::shownMembers, Cli::shownGroups, Cli::shownStatus,
                            Cli::shownTrace};

constexpr std::string_view usage =
    R"(Usage: ostra-show NAME [--follow] [flows|members|groups|status|trace ...]

Prints the stored flow entries, action-profile members and groups, the status of the entries and the
trace ring of the 'ostra-sim --shm NAME' that is running, or of what one that was killed has left.
Without a topic it prints all of them.

  --follow     then go on and print what changes. Waits for ostra-sim where it is not running, and
               attaches again when it has been restarted
  --check      read every row of every table, look each up by its key, and say what is damaged
  --remove     remove what a killed ostra-sim has left under NAME
  --trust-owner
               read, or remove, what belongs to another user
  --help       print this
  --version    print the version

Exit status: 0, 1 when there is nothing to show or something is damaged, 2 for a command line that
makes no sense.
)";

struct Options {
  std::string name;
  std::vector<std::string_view> topics;
  bool follow = false;
  bool check = false;
  bool remove = false;
  bool trustOwner = false;
  bool help = false;
  bool version = false;
};

void addTopic(Options& options, std::string_view word) {
  if (std::find(topics.begin(), topics.end(), word) == topics.end()) {
    Cli::throwUnexpected(word, "one of flows, members, groups, status, trace",
                         Cli::nearMatch(word, topics));
  }
  if (std::find(options.topics.begin(), options.topics.end(), word) == options.topics.end()) {
    options.topics.push_back(word);
  }
}

struct Flag {
  std::string_view name;
  bool Options::*flag;
};
constexpr std::array flags{
    Flag{"--follow", &Options::follow}, Flag{"--check", &Options::check},
    Flag{"--remove", &Options::remove}, Flag{"--trust-owner", &Options::trustOwner},
    Flag{"--help", &Options::help},     Flag{"--version", &Options::version}};

void addOption(Options& options, std::string_view word) {
  const auto found = std::find_if(flags.begin(), flags.end(),
                                  [word](const Flag& flag) { return flag.name == word; });
  if (found == flags.end()) {
    Cli::throwUnexpected(word, "--follow, --check, --remove, --trust-owner, --help or --version",
                         Cli::nearMatch(word, flags));
  }
  options.*found->flag = true;
}

// Throws: Cli::CommandError.
Options parseOptions(std::span<const char* const> arguments) {
  Options options;
  for (const std::string_view word : arguments) {
    if (word.starts_with('-')) {
      addOption(options, word);
    } else if (options.name.empty()) {
      options.name = word;
    } else {
      addTopic(options, word);
    }
  }
  if (options.help || options.version) {
    return options;
  }
  if (const std::string fault = Sim::sharedNameFault(options.name); !fault.empty()) {
    throw Cli::CommandError{"read " + Cli::quoted(options.name) + " for NAME, " + fault};
  }
  if (options.topics.empty()) {
    options.topics.assign(topics.begin(), topics.end());
  }
  return options;
}

Status show(const Options& options, Cli::Output& out, Cli::Output& errors) {
  Korm::segmentRightsIs({.group = {}, .trustOtherUsers = options.trustOwner});
  if (options.remove) {
    const Sim::SharedMemory left{options.name, Sim::Leftover::discard_};
    return success;
  }
  if (options.check) {
    return Cli::checkShared(options.name, out) ? success : nothingThere;
  }
  Cli::Viewer viewer{options.name, options.topics};
  if (!options.follow) {
    const auto shown = viewer.print(out);
    if (shown == Cli::Viewer::Shown::nothing_) {
      errors << "ostra-show: no 'ostra-sim --shm " << options.name << "' is running\n";
    }
    return shown == Cli::Viewer::Shown::whole_ ? success : nothingThere;
  }
  while (out.error() == 0) {
    viewer.follow(out);
    out.flush();
    std::this_thread::sleep_for(interval);
  }
  return success;
}

Status runProgram(std::span<const char* const> arguments, Cli::Output& out, Cli::Output& errors) {
  try {
    const Options options = parseOptions(arguments);
    if (options.help) {
      out << usage;
    } else if (options.version) {
      out << "ostra-show " << OSTRA_VERSION << '\n';
    } else {
      return show(options, out, errors);
    }
    return success;
  } catch (const Cli::CommandError& error) {
    errors << "ostra-show: " << error.what() << "\nTry 'ostra-show --help'.\n";
    return badInput;
  } catch (const std::bad_alloc&) {
    out.flush();
    errors << "ostra-show: out of memory\n";
    return nothingThere;
  } catch (const std::exception& error) {
    out.flush();
    errors << "ostra-show: " << error.what() << '\n';
    return nothingThere;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Cli::prepareStreams();
  Cli::Output out{STDOUT_FILENO};
  Cli::Output errors{STDERR_FILENO};
  const Status status = runProgram({argv + 1, argv + argc}, out, errors);
  out.flush();
  // A reader who has seen enough is not told that he has.
  if (out.error() == 0 || out.error() == EPIPE) {
    return status;
  }
  errors << "ostra-show: cannot write to standard output: "
         << std::generic_category().message(out.error()) << '\n';
  return nothingThere;
}
