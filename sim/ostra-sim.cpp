// ostra-sim: plays commands through an embedded switch.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "Ostra/Trace.h"
#include "platform/Brisklog/Ring.h"
#include "platform/Brisklog/RingReader.h"
#include "platform/Brisklog/TextTrace.h"
#include "platform/Korm/Clock.h"
#include "platform/KormVasta/SharedMemory.h"
#include "sim/HwAgent.h"
#include "sim/Interpreter.h"
#include "sim/JsonPrinter.h"
#include "sim/Options.h"
#include "sim/Output.h"
#include "sim/Progress.h"
#include "sim/Service.h"
#include "sim/SharedNames.h"
#include "sim/StepClock.h"
#include "sim/TextPrinter.h"

namespace {

enum Status { success = 0, internalFailure = 1, badInput = 2 };

int caughtSignal = 0;

void handleSignal(int number) {
  caughtSignal = number;
  Sim::requestStop();
}

// The first signal ends the run after the command under way, so that named shared memory is removed; a
// second one ends the process.
void handleSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  struct sigaction action {};
  action.sa_handler = handleSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    ::sigaction(number, &action, nullptr);
  }
}

void traceTo(std::ostream& errors, int level) {
  Brisklog::textSinkIs([&errors](const Brisklog::TextMessage& message) {
    errors << std::to_string(Korm::currentTime()) << ' ' << message.level << ' ' << message.unit
           << ':' << message.line << ' ' << message.text << '\n'
           << std::flush;
  });
  Ostra::traceHandle.levelIs(level);
}

// The named shared memory of this process, from before its tables are made to after they are gone.
class SharedMemory {
 public:
  explicit SharedMemory(const std::string& name) {
    KormVasta::sharedMemoryIs({.prefix = name, .takeOver = false});
    // Before the ring, whose coming tells readers to look: they shall not see what a dead process left.
    Sim::clearTables();
    // No trace has been written yet that the ring it replaces could hold.
    (void)Brisklog::ringIs(Brisklog::Ring::create({.shmName = Sim::traceSegment(name)}));
  }
  ~SharedMemory() { (void)Brisklog::ringIs(nullptr); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;
};

class Program {
 public:
  Program(const Sim::Options& options, Sim::Output& out, Sim::Output& errors)
      : options_{options}, out_{out}, errors_{errors}, printer_{makePrinter()} {}

  Status run() {
    if (const std::string fault = unreadableFile(); !fault.empty()) {
      errors_ << "ostra-sim: " << fault << '\n';
      return badInput;
    }
    if (options_.clockSteps) {
      Sim::StepClock::install();
    }
    std::optional<SharedMemory> sharedMemory;
    if (!options_.shm.empty()) {
      sharedMemory.emplace(options_.shm);
    }
    if (options_.traceLevel) {
      traceTo(errors_, *options_.traceLevel);
    }
    Sim::Service service;
    Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
    if (!options_.stopped) {
      service.start();
    }
    Sim::Interpreter interpreter{service, agent, *printer_, interpreterOptions()};
    for (const std::string& file : options_.files) {
      if (!interpreter.ended() && !play(interpreter, file)) {
        return badInput;
      }
    }
    interpreter.finish();
    return interpreter.failed() ? badInput : success;
  }

 private:
  [[nodiscard]] std::unique_ptr<Sim::Printer> makePrinter() const {
    if (options_.json) {
      return std::make_unique<Sim::JsonPrinter>(out_);
    }
    return std::make_unique<Sim::TextPrinter>(
        out_, errors_,
        Sim::TextStyle{.color = Sim::wantsColor(STDOUT_FILENO),
                       .errorColor = Sim::wantsColor(STDERR_FILENO)});
  }

  [[nodiscard]] Sim::InterpreterOptions interpreterOptions() const {
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    return {.keepGoing = options_.keepGoing,
            .beforeCommand =
                [steps = options_.clockSteps] {
                  if (steps) {
                    Sim::StepClock::advance();
                  }
                },
            .afterCommand =
                [this, terminal] {
                  if (terminal) {
                    out_.flush();
                  }
                  if (out_.error() != 0) {
                    Sim::requestStop();
                  }
                }};
  }

  // All FILEs are tried before the first command is played.
  [[nodiscard]] std::string unreadableFile() const {
    for (const std::string& file : options_.files) {
      if (file != "-" && ::access(file.c_str(), R_OK) != 0) {
        return "cannot read '" + file + "': " + std::generic_category().message(errno);
      }
    }
    return {};
  }

  // False if the file cannot be read.
  bool play(Sim::Interpreter& interpreter, const std::string& file) {
    try {
      const auto input = file == "-" ? std::make_unique<Sim::LineReader>(STDIN_FILENO)
                                     : std::make_unique<Sim::LineReader>(file);
      // Whoever drives the program through pipes sees all results before it has to write again.
      input->beforeReadIs([this] { out_.flush(); });
      if (input->isTerminal() && ::isatty(STDOUT_FILENO) == 1 && !options_.json) {
        interpreter.prompt(*input, file, out_);
        return true;
      }
      std::optional<Sim::Progress> progress;
      if (::isatty(STDERR_FILENO) == 1 && input->size() > 0) {
        progress.emplace(STDERR_FILENO, file);
        out_.beforeWriteIs([&progress] { progress->clear(); });
        errors_.beforeWriteIs([&progress] { progress->clear(); });
      }
      interpreter.play(*input, file, progress ? &*progress : nullptr);
      out_.beforeWriteIs({});
      errors_.beforeWriteIs({});
      return true;
    } catch (const Sim::ReadError& error) {
      out_.flush();
      errors_ << "ostra-sim: cannot read '" << file << "': " << error.code().message() << '\n';
      return false;
    }
  }

  const Sim::Options& options_;
  Sim::Output& out_;
  Sim::Output& errors_;
  const std::unique_ptr<Sim::Printer> printer_;
};

Status runProgram(int argc, char** argv, Sim::Output& out, Sim::Output& errors) {
  Sim::Options options;
  try {
    options = Sim::parseOptions({argv + 1, argv + argc});
  } catch (const Sim::UsageError& error) {
    errors << "ostra-sim: " << error.what() << "\nTry 'ostra-sim --help'.\n";
    return badInput;
  }
  if (options.help) {
    out << Sim::usage();
    return success;
  }
  if (options.version) {
    out << "ostra-sim " << OSTRA_VERSION << '\n';
    return success;
  }
  try {
    return Program{options, out, errors}.run();
  } catch (const std::exception& error) {
    out.flush();
    errors << "ostra-sim: " << error.what() << '\n';
    return internalFailure;
  }
}

}  // namespace

int main(int argc, char** argv) {
  handleSignals();
  Status status = success;
  {
    Sim::Output out{STDOUT_FILENO};
    Sim::Output errors{STDERR_FILENO};
    status = runProgram(argc, argv, out, errors);
    out.flush();
    // A reader who has seen enough is not told that he has.
    if (out.error() != 0 && out.error() != EPIPE) {
      errors << "ostra-sim: cannot write to standard output: "
             << std::generic_category().message(out.error()) << '\n';
    }
    errors.flush();
    if (out.error() != 0 && status == success) {
      status = internalFailure;
    }
  }
  if (caughtSignal != 0) {
    std::signal(caughtSignal, SIG_DFL);
    ::raise(caughtSignal);
  }
  return status;
}
