#include "cli/language/LineReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace Cli {
namespace {

constexpr std::size_t blockSize = std::size_t{1} << 16;

int openFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    throw ReadError{errno};
  }
  return descriptor;
}

std::uint64_t sizeOfFile(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)
             ? static_cast<std::uint64_t>(status.st_size)
             : 0;
}

}  // namespace

LineReader::LineReader(const std::string& path)
    : descriptor_{openFile(path)}, owned_{true}, size_{sizeOfFile(descriptor_)} {}

LineReader::LineReader(int descriptor)
    : descriptor_{descriptor}, owned_{false}, size_{sizeOfFile(descriptor)} {}

LineReader::~LineReader() {
  if (owned_) {
    ::close(descriptor_);
  }
}

bool LineReader::isTerminal() const noexcept { return ::isatty(descriptor_) == 1; }

std::optional<LineReader::Line> LineReader::next() {
  std::size_t searched = start_;
  bool cut = false;
  for (;;) {
    const std::size_t end = buffer_.find('\n', searched);
    if (end != std::string::npos || (atEnd_ && start_ < buffer_.size())) {
      const std::size_t stop = end == std::string::npos ? buffer_.size() : end;
      const std::size_t next = std::min(stop + 1, buffer_.size());
      std::string_view text{buffer_.data() + start_, stop - start_};
      position_ += next - start_;
      start_ = next;
      cut = cut || text.size() > longestLine;
      return Line{cut ? std::string_view{} : text, cut};
    }
    if (atEnd_) {
      return cut ? std::optional{Line{{}, true}} : std::nullopt;
    }
    if (buffer_.size() - start_ > longestLine) {
      cut = true;
      position_ += buffer_.size() - start_;
      start_ = buffer_.size();
    }
    buffer_.erase(0, start_);
    start_ = 0;
    searched = buffer_.size();
    atEnd_ = !fill();
  }
}

bool LineReader::fill() {
  if (beforeRead_) {
    beforeRead_();
  }
  std::array<char, blockSize> block;
  const ssize_t count = ::read(descriptor_, block.data(), block.size());
  if (count < 0) {
    throw ReadError{errno};
  }
  buffer_.append(block.data(), static_cast<std::size_t>(count));
  return count > 0;
}

}  // namespace Cli
