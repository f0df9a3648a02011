// Standard output as a stream that knows why it failed.
//
// Threads: one thread. The host ignores SIGPIPE, so that a closed pipe is an error here.
#pragma once

#include <array>
#include <functional>
#include <ostream>
#include <streambuf>
#include <utility>

namespace Cli {

// Prepares the standard streams of the process. Closed ones are opened on /dev/null, because they
// would otherwise become the next file that is opened. A closed pipe or the limit on file sizes is
// an error and not a signal.
void prepareStreams() noexcept;

// Buffers output to a descriptor, which the caller owns.
class DescriptorBuffer final : public std::streambuf {
 public:
  explicit DescriptorBuffer(int descriptor);
  // Writes what is left; if that fails, it is lost.
  ~DescriptorBuffer() override;

  // The errno of the first write that failed; 0 for none.
  [[nodiscard]] int error() const noexcept { return error_; }
  // Called before each write to the descriptor.
  void beforeWriteIs(std::function<void()> hook) { beforeWrite_ = std::move(hook); }

 protected:
  int_type overflow(int_type character) override;
  int sync() override;

 private:
  const int descriptor_;
  int error_ = 0;
  std::function<void()> beforeWrite_;
  std::array<char, 1U << 16U> buffer_;
};

class Output final : public std::ostream {
 public:
  explicit Output(int descriptor) : std::ostream{nullptr}, buffer_{descriptor} { rdbuf(&buffer_); }

  [[nodiscard]] int error() const noexcept { return buffer_.error(); }
  void beforeWriteIs(std::function<void()> hook) { buffer_.beforeWriteIs(std::move(hook)); }

 private:
  DescriptorBuffer buffer_;
};

// Whether output to this descriptor may be coloured: it is a terminal with colours, and NO_COLOR is
// not set (https://no-color.org).
[[nodiscard]] bool wantsColor(int descriptor) noexcept;

}  // namespace Cli
