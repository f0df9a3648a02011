// Lines of commands from a file, a pipe or a terminal.
//
// Threads: one thread.
// Ownership: a reader owns a descriptor that it has opened, but not one that it was given. A line
// is valid until the next one.
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
  // The longest line that is read; see Line::cut.
  static constexpr std::size_t longestLine = std::size_t{1} << 20;

  struct Line {
    std::string_view text;  // without the end of the line
    bool cut = false;       // it was longer than longestLine and was skipped
  };

  // Throws: ReadError when the file cannot be opened.
  explicit LineReader(const std::string& path);
  // Reads from a descriptor that stays the caller's.
  explicit LineReader(int descriptor);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The hook is called before each system call that reads, which may block.
  void beforeReadIs(std::function<void()> hook) { beforeRead_ = std::move(hook); }

  // The next line, or nothing at the end of the input. The end of the file ends a line as well.
  // Throws: ReadError when reading fails, with EINTR when a signal came.
  [[nodiscard]] std::optional<Line> next();

  // How many bytes next() has read.
  [[nodiscard]] std::uint64_t position() const noexcept { return position_; }
  // The size of a file; 0 for any other input.
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }
  [[nodiscard]] bool isTerminal() const noexcept;

 private:
  // Reads more input; false at the end.
  bool fill();

  const int descriptor_;
  const bool owned_;
  std::uint64_t size_ = 0;
  std::function<void()> beforeRead_;
  std::string buffer_;
  std::size_t start_ = 0;  // of the bytes that next() has not returned yet
  std::uint64_t position_ = 0;
  bool atEnd_ = false;
};

}  // namespace Cli
