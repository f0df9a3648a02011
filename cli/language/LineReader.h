// Lines of commands from a file, a pipe or a terminal.
//
// Thread and process rule: one thread.
// Ownership: a reader owns the descriptor that it opened, and not one that it was given. A line
// that it hands out is good until the next one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace Cli {

// The input cannot be opened or read.
class ReadError : public std::system_error {
 public:
  explicit ReadError(int error) : system_error{error, std::generic_category()} {}
};

class LineReader {
 public:
  // A command is not longer than that; see Line.
  static constexpr std::size_t longestLine = std::size_t{1} << 20;

  struct Line {
    std::string_view text;  // without the end of the line
    bool cut = false;       // it was longer than longestLine, and all of it has been passed over
  };

  // Throws: ReadError when the file cannot be opened.
  explicit LineReader(const std::string& path);
  // Reads from a descriptor of somebody else's.
  explicit LineReader(int descriptor);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Called before each read from the system, which may have to wait.
  void beforeReadIs(std::function<void()> hook) { beforeRead_ = std::move(hook); }

  // The next line, or nothing at the end of the input. The end of the file ends a line as well.
  // Throws: ReadError when reading fails, with EINTR when a signal came.
  [[nodiscard]] std::optional<Line> next();

  // Bytes that next() has passed.
  [[nodiscard]] std::uint64_t position() const noexcept { return position_; }
  // Bytes of the file, where it is one; otherwise 0.
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }
  [[nodiscard]] bool isTerminal() const noexcept;

 private:
  // Whether there was more.
  bool fill();

  const int descriptor_;
  const bool owned_;
  std::uint64_t size_ = 0;
  std::function<void()> beforeRead_;
  std::string buffer_;
  std::size_t start_ = 0;  // of what next() has not handed out
  std::uint64_t position_ = 0;
  bool atEnd_ = false;
};

}  // namespace Cli
