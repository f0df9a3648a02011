// Plays commands: reads lines, runs what the table of commands says, and prints what came of it.
//
// Thread and process rule: the activity thread. requestStop() alone may be called from a signal
// handler.
// Ownership: the service, the agent, the printer and the streams belong to the host and outlive the
// interpreter.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cli/language/LineReader.h"
#include "cli/language/Words.h"
#include "cli/output/Printer.h"

namespace Cli {

class Progress;

struct InterpreterOptions {
  bool keepGoing = false;  // a bad command does not end the run
  // Whose flows, members and groups are: not empty, and the commands that write them are refused.
  std::string_view writer{};
  bool verify = false;  // every invariant is checked after each command
  bool audit = false;   // the first fault that an audit finds after a batch ends the run
  // Called before and after each command.
  std::function<void()> beforeCommand{};
  std::function<void()> afterCommand{};
};

class Interpreter {
 public:
  Interpreter(Sim::Service& service, Sim::HwAgent& agent, Printer& printer,
              InterpreterOptions options);

  // Plays all of the input. Places in messages are `name` and the line. `progress` may be null.
  // Throws: ReadError.
  void play(LineReader& input, const std::string& name, Progress* progress = nullptr);
  // The input is a person at a terminal: `prompt` is written to `out`, and a bad command does not
  // end the run.
  void prompt(LineReader& input, const std::string& name, std::ostream& out);
  // Plays one line.
  void playLine(const LineReader::Line& line, std::string_view where);
  // Creates the library before the first line, and prints what came of the rows that were there.
  void start();
  // There is no more input: a batch that is still open is an error, and its writes are dropped.
  void finish();

  // Whether no more lines are played: `quit`, a bad command, or a stop that was asked for.
  [[nodiscard]] bool ended() const noexcept;
  // Whether some command made no sense.
  [[nodiscard]] bool failed() const noexcept { return failed_; }

  // What the commands work with.

  [[nodiscard]] Sim::Service& service() noexcept { return service_; }
  [[nodiscard]] Sim::HwAgent& agent() noexcept { return agent_; }
  [[nodiscard]] Printer& printer() noexcept { return printer_; }

  // A controller's write: applied now, or kept for the end of the open batch.
  void write(Sim::Update update);
  void beginBatch();
  void commitBatch();
  void quit() noexcept { quit_ = true; }
  // The hardware has been told something: lets it act.
  void settle();
  // A hand has changed the switch, so that the faults there are now are known.
  void tampered();
  // Says so if a command that was understood has failed.
  void check(std::string_view command, const Sim::Failure& failure);
  void print(std::string_view command, const Sim::Announcement& announcement);

 private:
  struct Batch {
    std::string begun;  // where
    std::vector<Sim::Update> updates;
  };

  void playCommand(std::string_view text, std::string_view where);
  void apply(const std::vector<Sim::Update>& updates);
  void afterCommand();
  void printReports();
  void hintAt(const Sim::Result& result);
  [[nodiscard]] Ostra::AuditReport audited() const;
  void auditBatch();
  // Throws: CommandError when entries are written by somebody else.
  void checkWriter() const;
  void fail(std::string_view where, std::string_view message);

  Sim::Service& service_;
  Sim::HwAgent& agent_;
  Printer& printer_;
  InterpreterOptions options_;
  std::string_view where_;  // of the line that is being played
  std::optional<Batch> batch_;
  std::set<std::string> knownFaults_;  // those that a hand has made
  bool faultFound_ = false;
  bool quit_ = false;
  bool failed_ = false;
};

// Asks all interpreters of the process to end after the command that they are playing.
void requestStop() noexcept;
[[nodiscard]] bool stopRequested() noexcept;

}  // namespace Cli
