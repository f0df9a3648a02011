// Plays commands: reads lines, executes them by the table of commands, and prints the results.
//
// Threads: the activity thread. requestStop() alone may be called from a signal handler.
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
  // If not empty, the owner of all flows, members and groups: commands that write them are refused.
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

  // Plays the whole input. `name` is the input's name in messages. `progress` may be null.
  // Throws: ReadError.
  void play(LineReader& input, const std::string& name, Progress* progress = nullptr);
  // The same for a person at a terminal: writes a prompt to `out`, and goes on after a bad command.
  void prompt(LineReader& input, const std::string& name, std::ostream& out);
  // Plays one line.
  void playLine(const LineReader::Line& line, std::string_view where);
  // Creates the library before the first line, and prints the results of the rows that are stored.
  void start();
  // Ends the input. A batch that is still open is an error, and its writes are dropped.
  void finish();

  // Whether the run has ended: by `quit`, by a bad command, or by requestStop().
  [[nodiscard]] bool ended() const noexcept;
  // Whether there was a bad command.
  [[nodiscard]] bool failed() const noexcept { return failed_; }

  // What the commands work with.

  [[nodiscard]] Sim::Service& service() noexcept { return service_; }
  [[nodiscard]] Sim::HwAgent& agent() noexcept { return agent_; }
  [[nodiscard]] Printer& printer() noexcept { return printer_; }

  // Applies a controller's write, or keeps it for the end of the open batch.
  void write(Sim::Update update);
  void beginBatch();
  void commitBatch();
  void quit() noexcept { quit_ = true; }
  // Lets the hardware act after a command to it.
  void settle();
  // Says that a command has changed the switch by hand: the faults that there are now are known.
  void tampered();
  // Prints the failure of a command, if there is one.
  void check(std::string_view command, const Sim::Failure& failure);
  void print(std::string_view command, const Sim::Announcement& announcement);

 private:
  struct Batch {
    std::string begun;  // FILE:LINE of its begin
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
  std::set<std::string> knownFaults_;  // those that were made by hand
  bool faultFound_ = false;
  bool quit_ = false;
  bool failed_ = false;
};

// Makes all interpreters of the process end after the current command.
void requestStop() noexcept;
[[nodiscard]] bool stopRequested() noexcept;

}  // namespace Cli
