// The console: plays commands of ostra-sim on the switch behind the server, from a file or from
// standard input. Commands that write flows, members or groups are refused, because these belong to
// the controllers.
//
// Threads: the loop's thread. A reader thread waits for standard input and posts each line to the
// loop; it reads the next line after the loop has played this one.
// Ownership: the constructor's arguments outlive the console.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "cli/language/Interpreter.h"
#include "cli/output/Output.h"
#include "p4rt/core/Loop.h"
#include "platform/Korm/Mutex.h"

namespace P4rt {

class Console {
 public:
  Console(Loop& loop, Sim::Service& service, Sim::HwAgent& agent, Cli::Printer& printer,
          Cli::Output& out);
  // Ends the reader thread, even while it waits for input.
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Starts the switch.
  void start() { interpreter_.start(); }
  // Plays a file, up to the first invalid command. Returns false if there was one.
  // Throws: Cli::ReadError when the file cannot be read.
  [[nodiscard]] bool play(const std::string& file);
  // Starts to play standard input, line by line until its end. Calls `quit` when the command `quit`
  // is read.
  // Requires: called once.
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
  int wake_[2] = {-1, -1};  // a pipe; closing its write end wakes the reader thread

  // The loop's thread.
  Cli::Interpreter interpreter_;
  std::function<void()> quit_;
  std::string promptText_;

  // Shared by the reader thread and the loop's thread, under mutex_.
  Korm::Mutex mutex_;
  std::condition_variable_any changed_;
  Cli::LineReader::Line line_ KORM_GUARDED_BY(mutex_);
  std::string where_ KORM_GUARDED_BY(mutex_);
  bool waiting_ KORM_GUARDED_BY(mutex_) = false;  // a line has been read and not been played
  bool ending_ KORM_GUARDED_BY(mutex_) = false;

  std::thread reader_;
};

}  // namespace P4rt
