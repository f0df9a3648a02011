#include "cli/language/Interpreter.h"

#include <cerrno>
#include <csignal>
#include <limits>
#include <ostream>

#include "cli/Progress.h"
#include "cli/language/Commands.h"
#include "cli/output/Hints.h"

namespace Cli {
namespace {

volatile std::sig_atomic_t stopWanted = 0;

// The next line; nothing at the end of the input, or when a signal has requested a stop meanwhile.
std::optional<LineReader::Line> nextLine(LineReader& input) {
  for (;;) {
    try {
      return input.next();
    } catch (const ReadError& error) {
      if (error.code() != std::errc::interrupted) {
        throw;
      }
      if (stopWanted != 0) {
        return std::nullopt;
      }
    }
  }
}

std::string countOf(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string faultName(const Ostra::AuditFinding& finding) {
  return std::string{auditKindText(finding.kind)} + " " + finding.about;
}

}  // namespace

void requestStop() noexcept { stopWanted = 1; }

bool stopRequested() noexcept { return stopWanted != 0; }

Interpreter::Interpreter(Sim::Service& service, Sim::HwAgent& agent, Printer& printer,
                         InterpreterOptions options)
    : service_{service}, agent_{agent}, printer_{printer}, options_{std::move(options)} {}

bool Interpreter::ended() const noexcept {
  return quit_ || faultFound_ || stopWanted != 0 || (failed_ && !options_.keepGoing);
}

void Interpreter::play(LineReader& input, const std::string& name, Progress* progress) {
  for (std::uint64_t number = 1; !ended(); ++number) {
    const auto line = nextLine(input);
    if (!line) {
      return;
    }
    playLine(*line, name + ":" + std::to_string(number));
    if (progress != nullptr) {
      progress->at(number, input.position(), input.size());
    }
  }
}

void Interpreter::prompt(LineReader& input, const std::string& name, std::ostream& out) {
  options_.keepGoing = true;
  printer_.note("Type 'help' for the commands, 'quit' or Ctrl-D to leave.");
  std::uint64_t number = 0;
  while (!ended()) {
    out << (batch_ ? "batch> " : "ostra> ") << std::flush;
    const auto line = nextLine(input);
    if (!line) {
      out << '\n';
      return;
    }
    playLine(*line, name + ":" + std::to_string(++number));
  }
}

void Interpreter::playLine(const LineReader::Line& line, std::string_view where) {
  if (line.cut) {
    fail(where, "read a line of more than " + std::to_string(LineReader::longestLine) +
                    " characters, expected a shorter one");
  } else {
    playCommand(line.text, where);
  }
}

void Interpreter::playCommand(std::string_view text, std::string_view where) {
  Words words{text};
  if (words.done()) {
    return;
  }
  where_ = where;
  if (options_.beforeCommand) {
    options_.beforeCommand();
  }
  try {
    takeCommand(words).handler(*this, words);
  } catch (const CommandError& error) {
    fail(where, error.what());
  }
  afterCommand();
}

void Interpreter::start() {
  where_ = "start";
  print("start", service_.start());
  afterCommand();
}

void Interpreter::afterCommand() {
  printReports();
  for (const std::string& fault : service_.takeFaults()) {
    printer_.error(where_, fault);
  }
  if (options_.verify) {
    service_.verify();
    agent_.verify();
  }
  if (options_.afterCommand) {
    options_.afterCommand();
  }
}

void Interpreter::finish() {
  if (batch_ && (!failed_ || options_.keepGoing)) {
    fail(batch_->begun, "read 'begin', expected a 'commit' after it; " +
                            countOf(batch_->updates.size(), "write") + " not applied");
  }
  batch_.reset();
}

void Interpreter::checkWriter() const {
  if (!options_.writer.empty()) {
    throw CommandError{"read a write, expected none: entries are written by " +
                       std::string{options_.writer}};
  }
}

void Interpreter::write(Sim::Update update) {
  checkWriter();
  if (batch_) {
    batch_->updates.push_back(std::move(update));
  } else {
    apply({std::move(update)});
  }
}

void Interpreter::beginBatch() {
  checkWriter();
  if (batch_) {
    throw CommandError{"read 'begin' inside the batch that begins at " + batch_->begun +
                       ", expected 'commit' first"};
  }
  batch_ = Batch{.begun = std::string{where_}, .updates = {}};
}

void Interpreter::commitBatch() {
  if (!batch_) {
    throw CommandError{"read 'commit' outside a batch, expected 'begin' before it"};
  }
  const std::vector<Sim::Update> updates = std::move(batch_->updates);
  batch_.reset();
  apply(updates);
}

void Interpreter::settle() {
  Sim::Service::settle();
  tampered();
}

void Interpreter::check(std::string_view command, const Sim::Failure& failure) {
  if (failure) {
    printer_.failure(where_, command, *failure);
  }
}

void Interpreter::print(std::string_view command, const Sim::Announcement& announcement) {
  for (const Sim::Result& result : announcement.results) {
    printer_.result(result);
  }
  check(command, announcement.failure);
}

void Interpreter::apply(const std::vector<Sim::Update>& updates) {
  for (const Sim::Result& result : service_.apply(updates)) {
    printer_.result(result);
    hintAt(result);
  }
  if (options_.audit) {
    auditBatch();
  }
}

// There is no hint when the same write would be accepted by now.
void Interpreter::hintAt(const Sim::Result& result) {
  const bool refused = result.state == Sim::State::failed_ ||
                       (result.state == Sim::State::done_ && !result.message.empty());
  if (!refused || result.kind != Sim::Kind::flow_) {
    return;
  }
  const auto stored = service_.storedFlow(result.handle);
  if (!stored || !stored->preview) {
    return;
  }
  if (const std::string text = hintText(*stored->row, *stored->preview); !text.empty()) {
    printer_.hint(text);
  }
}

// In manual mode the hardware answers only when it is told to, so no answer is overdue.
Ostra::AuditReport Interpreter::audited() const {
  Ostra::AuditOptions auditOptions;
  if (!agent_.automatic()) {
    auditOptions.answerLimit = std::numeric_limits<double>::infinity();
  }
  return service_.audit(auditOptions).value_or(Ostra::AuditReport{});
}

void Interpreter::tampered() {
  if (!options_.audit) {
    return;
  }
  for (const Ostra::AuditFinding& finding : audited().findings) {
    if (finding.fault) {
      knownFaults_.insert(faultName(finding));
    }
  }
}

void Interpreter::auditBatch() {
  Ostra::AuditReport report = audited();
  std::erase_if(report.findings, [this](const Ostra::AuditFinding& finding) {
    return !finding.fault || knownFaults_.contains(faultName(finding));
  });
  if (!report.findings.empty()) {
    printer_.audit(report);
    fail(where_, "read a batch that leaves a fault behind, expected none");
    faultFound_ = true;
  }
}

void Interpreter::printReports() {
  for (const Sim::Report& report : service_.takeReports()) {
    printer_.report(report);
  }
}

void Interpreter::fail(std::string_view where, std::string_view message) {
  failed_ = true;
  printer_.error(where, message);
}

}  // namespace Cli
