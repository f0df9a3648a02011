// ostra-sim: plays commands through an embedded switch.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>

#include "Ostra/Trace.h"
#include "cli/Options.h"
#include "cli/Progress.h"
#include "cli/StepClock.h"
#include "cli/language/Interpreter.h"
#include "cli/output/Output.h"
#include "cli/output/Printer.h"
#include "platform/Brisklog/TextTrace.h"
#include "platform/Korm/Clock.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "sim/SharedMemory.h"

namespace {

enum Status { success = 0, internalFailure = 1, badInput = 2 };

int caughtSignal = 0;

void handleSignal(int number) {
  caughtSignal = number;
  Cli::requestStop();
}

// The first signal ends the run after the command under way, so that named shared memory is
// removed; a second one ends the process.
void handleSignals() {
  Cli::prepareStreams();
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

class Program {
 public:
  Program(const Cli::Options& options, Cli::Output& out, Cli::Output& errors)
      : options_{options}, out_{out}, errors_{errors}, printer_{makePrinter()} {}

  Status run() {
    if (const std::string fault = unreadableFile(); !fault.empty()) {
      errors_ << "ostra-sim: " << fault << '\n';
      return badInput;
    }
    if (options_.clockSteps) {
      Cli::StepClock::install();
    }
    std::optional<Sim::SharedMemory> sharedMemory;
    if (!options_.shm.empty()) {
      Korm::segmentRightsIs(options_.rights);
      sharedMemory.emplace(options_.shm, options_.leftover);
    }
    if (options_.traceLevel) {
      traceTo(errors_, *options_.traceLevel);
    }
    Sim::Service service{sharedMemory ? &*sharedMemory : nullptr};
    Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
    Cli::Interpreter interpreter{service, agent, *printer_, interpreterOptions()};
    if (!options_.stopped) {
      interpreter.start();
    }
    for (const std::string& file : options_.files) {
      if (!interpreter.ended() && !play(interpreter, file)) {
        return badInput;
      }
    }
    interpreter.finish();
    return interpreter.failed() ? badInput : success;
  }

 private:
  [[nodiscard]] std::unique_ptr<Cli::Printer> makePrinter() const {
    if (options_.json) {
      return Cli::jsonPrinter(out_);
    }
    return Cli::textPrinter(
        out_, errors_,
        {.color = Cli::wantsColor(STDOUT_FILENO), .errorColor = Cli::wantsColor(STDERR_FILENO)});
  }

  [[nodiscard]] Cli::InterpreterOptions interpreterOptions() const {
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    return {.keepGoing = options_.keepGoing,
            .verify = options_.verify,
            .audit = options_.audit,
            .beforeCommand =
                [steps = options_.clockSteps] {
                  if (steps) {
                    Cli::StepClock::advance();
                  }
                },
            .afterCommand =
                [this, terminal] {
                  if (terminal) {
                    out_.flush();
                  }
                  if (out_.error() != 0) {
                    Cli::requestStop();
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
  bool play(Cli::Interpreter& interpreter, const std::string& file) {
    try {
      const auto input = file == "-" ? std::make_unique<Cli::LineReader>(STDIN_FILENO)
                                     : std::make_unique<Cli::LineReader>(file);
      // Whoever drives the program through pipes sees all results before it has to write again.
      input->beforeReadIs([this] {
        out_.flush();
        // A line without an end would otherwise be read for ever.
        if (Cli::stopRequested()) {
          throw Cli::ReadError{EINTR};
        }
      });
      if (input->isTerminal() && ::isatty(STDOUT_FILENO) == 1 && !options_.json) {
        interpreter.prompt(*input, file, out_);
        return true;
      }
      std::optional<Cli::Progress> progress;
      if (::isatty(STDERR_FILENO) == 1 && input->size() > 0) {
        progress.emplace(STDERR_FILENO, file);
        out_.beforeWriteIs([&progress] { progress->clear(); });
        errors_.beforeWriteIs([&progress] { progress->clear(); });
      }
      interpreter.play(*input, file, progress ? &*progress : nullptr);
      out_.beforeWriteIs({});
      errors_.beforeWriteIs({});
      return true;
    } catch (const Cli::ReadError& error) {
      out_.flush();
      errors_ << "ostra-sim: cannot read '" << file << "': " << error.code().message() << '\n';
      return false;
    }
  }

  const Cli::Options& options_;
  Cli::Output& out_;
  Cli::Output& errors_;
  const std::unique_ptr<Cli::Printer> printer_;
};

Status runProgram(int argc, char** argv, Cli::Output& out, Cli::Output& errors) {
  const auto fail = [&](Status status, auto... text) {
    out.flush();
    errors << "ostra-sim: ";
    (errors << ... << text);
    errors << '\n';
    return status;
  };
  try {
    const Cli::Options options = Cli::parseOptions({argv + 1, argv + argc});
    if (options.help) {
      out << Cli::usage();
      return success;
    }
    if (options.version) {
      out << "ostra-sim " << OSTRA_VERSION << '\n';
      return success;
    }
    return Program{options, out, errors}.run();
  } catch (const Cli::UsageError& error) {
    return fail(badInput, error.what(), "\nTry 'ostra-sim --help'.");
  } catch (const Sim::LeftoverError& error) {
    return fail(internalFailure, error.what(),
                ": --resume goes on with them, --discard removes them");
  } catch (const std::bad_alloc&) {
    return fail(internalFailure, "out of memory");
  } catch (const std::exception& error) {
    return fail(internalFailure, error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  handleSignals();
  Status status = success;
  {
    Cli::Output out{STDOUT_FILENO};
    Cli::Output errors{STDERR_FILENO};
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
