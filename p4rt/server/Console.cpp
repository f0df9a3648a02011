#include "p4rt/server/Console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <system_error>
#include <utility>

namespace P4rt {
namespace {

constexpr std::string_view writer = "P4Runtime controllers";

// Thrown by awaitInput() to end the reader thread.
struct Ended {};

}  // namespace

Console::Console(Loop& loop, Sim::Service& service, Sim::HwAgent& agent, Cli::Printer& printer,
                 Cli::Output& out)
    : loop_{loop},
      service_{service},
      agent_{agent},
      printer_{printer},
      out_{out},
      interpreter_{service, agent, printer, {.keepGoing = true, .writer = writer}} {
  if (::pipe2(wake_, O_CLOEXEC) != 0) {
    throw std::system_error{errno, std::generic_category(), "no pipe"};
  }
}

Console::~Console() {
  {
    const Korm::Lock lock{mutex_};
    ending_ = true;
  }
  changed_.notify_one();
  ::close(wake_[1]);
  if (reader_.joinable()) {
    reader_.join();
  }
  ::close(wake_[0]);
}

bool Console::play(const std::string& file) {
  Cli::LineReader input{file};
  Cli::Interpreter interpreter{service_, agent_, printer_, {.writer = writer}};
  interpreter.play(input, file);
  return !interpreter.failed();
}

void Console::readInput(bool prompt, std::function<void()> quit) {
  quit_ = std::move(quit);
  promptText_ = prompt ? "ostra> " : "";
  out_ << promptText_ << std::flush;
  // A server in the background that reads from its terminal shall lose its input, not be stopped.
  std::signal(SIGTTIN, SIG_IGN);
  reader_ = std::thread{[this] { readLines(); }};
}

void Console::readLines() {
  Cli::LineReader input{STDIN_FILENO};
  input.beforeReadIs([this] { awaitInput(); });
  try {
    for (std::uint64_t number = 1;; ++number) {
      const auto line = input.next();
      if (!line) {
        return;
      }
      const Korm::Lock lock{mutex_};
      line_ = *line;
      where_ = "-:" + std::to_string(number);
      waiting_ = true;
      loop_.post([this] { playLine(); });
      while (waiting_ && !ending_) {
        changed_.wait(mutex_);
      }
      if (ending_) {
        return;
      }
    }
  } catch (const Ended&) {
  } catch (const Cli::ReadError&) {
    // The terminal has gone. That is the end of the input.
  }
}

void Console::awaitInput() {
  pollfd waits[] = {{STDIN_FILENO, POLLIN, 0}, {wake_[0], POLLIN, 0}};
  while (::poll(waits, std::size(waits), -1) < 0) {
    if (errno != EINTR) {
      throw Ended{};
    }
  }
  if (waits[1].revents != 0) {
    throw Ended{};
  }
}

void Console::playLine() {
  Cli::LineReader::Line line;
  std::string where;
  {
    const Korm::Lock lock{mutex_};
    line = line_;
    where = where_;
  }
  // Collect the reports of this command only, not those of the controllers' writes.
  service_.reportsGatheredIs(true);
  interpreter_.playLine(line, where);
  service_.reportsGatheredIs(false);
  const bool ended = interpreter_.ended();
  if (ended) {
    quit_();
  } else {
    out_ << promptText_;
  }
  out_.flush();
  {
    const Korm::Lock lock{mutex_};
    waiting_ = false;
    ending_ = ended;
  }
  changed_.notify_one();
}

}  // namespace P4rt
