// Shows on a terminal how far a long script has come.
//
// Threads: one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace Cli {

// Shows nothing in the first second, and then a line that it keeps rewriting.
// Requires: clear() is called before anything else is written to the same terminal.
class Progress {
 public:
  // Writes to the descriptor, a terminal.
  Progress(int descriptor, std::string name) : descriptor_{descriptor}, name_{std::move(name)} {}
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Says that this line has been played; it ends at `position` of `size` bytes.
  void at(std::uint64_t line, std::uint64_t position, std::uint64_t size);
  // Wipes what is shown.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  void write(std::string_view text) const;

  const int descriptor_;
  const std::string name_;
  Clock::time_point next_ = Clock::now() + std::chrono::seconds{1};
  bool shown_ = false;
};

}  // namespace Cli
