#include "cli/Progress.h"

#include <unistd.h>

#include <cerrno>

namespace Cli {
namespace {

constexpr std::chrono::milliseconds interval{200};
constexpr std::string_view wipe = "\r\x1b[K";

}  // namespace

void Progress::at(std::uint64_t line, std::uint64_t position, std::uint64_t size) {
  if (Clock::now() < next_) {
    return;
  }
  next_ = Clock::now() + interval;
  std::string text{wipe};
  text += name_ + ": line " + std::to_string(line);
  if (size > 0) {
    text += ", " + std::to_string(position * 100 / size) + "%";
  }
  write(text);
  shown_ = true;
}

void Progress::clear() {
  if (shown_) {
    write(wipe);
    shown_ = false;
  }
}

void Progress::write(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t count = ::write(descriptor_, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return;
    }
    text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
}

}  // namespace Cli
