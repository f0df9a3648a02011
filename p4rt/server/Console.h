// The console: commands of ostra-sim for the switch behind the server, from standard input or a
// file.
//
// A thread of its own waits for input and posts each line to the loop; it reads the next one when
// that has been played. Flows, members and groups are the controllers': the commands that write
// them are refused.
//
// Thread and process rule: the loop's thread, but for the thread that reads.
// Ownership: what it is made with outlives it.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "cli/language/Interpreter.h"
#include "cli/output/Output.h"
#include "p4rt/core/Loop.h"

namespace P4rt {

class Console {
 public:
  Console(Loop& loop, Sim::Service& service, Sim::HwAgent& agent, Cli::Printer& printer,
          Cli::Output& out);
  // Ends the thread that reads, also while it waits.
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Starts the switch.
  void start() { interpreter_.start(); }
  // Plays a file, at once, up to the first command that makes no sense. Returns whether there was
  // none. Throws Cli::ReadError.
  [[nodiscard]] bool play(const std::string& file);
  // Plays standard input line by line from now on, until its end. `quit` is called when somebody
  // types that. Requires: called once.
  void readInput(bool prompt, std::function<void()> quit);

 private:
  void readLines();
  void awaitInput();
  void playLine();

  // Constant after construction.
  Loop& loop_;
  Sim::Service& service_;
  Sim::HwAgent& agent_;
  Cli::Printer& printer_;
  Cli::Output& out_;
  int wake_[2] = {-1, -1};  // a pipe: what is written wakes the thread

  // The loop's thread.
  Cli::Interpreter interpreter_;
  std::function<void()> quit_;
  std::string promptText_;

  // Between the thread that reads and the loop's.
  std::mutex mutex_;
  std::condition_variable changed_;
  Cli::LineReader::Line line_;
  std::string where_;
  bool waiting_ = false;  // for a line to be played
  bool ending_ = false;

  std::thread reader_;
};

}  // namespace P4rt
