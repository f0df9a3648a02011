// Standard output as a stream that knows why it failed.
//
// Thread and process rule: one thread. The host ignores SIGPIPE, so that a reader who has gone
// shows here as an error.
#pragma once

#include <array>
#include <functional>
#include <ostream>
#include <streambuf>
#include <utility>

namespace Cli {

// Readies the process for its standard streams: those that are closed lead nowhere instead of to
// the next file that is opened, and a reader that goes or a file that may not grow is an error and
// no signal.
void prepareStreams() noexcept;

// Buffers what goes to a descriptor, which stays the caller's.
class DescriptorBuffer final : public std::streambuf {
 public:
  explicit DescriptorBuffer(int descriptor);
  // Writes what is left, and drops it where that fails.
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

// Whether texts to this descriptor may be coloured: it is a terminal that can, and NO_COLOR is not
// set (https://no-color.org).
[[nodiscard]] bool wantsColor(int descriptor) noexcept;

}  // namespace Cli
