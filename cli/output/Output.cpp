#include "cli/output/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

namespace Cli {

void prepareStreams() noexcept {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  // open() returns the lowest free descriptor.
  int descriptor = 0;
  do {
    descriptor = ::open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    ::close(descriptor);
  }
}

DescriptorBuffer::DescriptorBuffer(int descriptor) : descriptor_{descriptor} {
  setp(buffer_.data(), buffer_.data() + buffer_.size());
}

DescriptorBuffer::~DescriptorBuffer() { DescriptorBuffer::sync(); }

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type character) {
  if (sync() != 0) {
    return traits_type::eof();
  }
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    sputc(traits_type::to_char_type(character));
  }
  return traits_type::not_eof(character);
}

int DescriptorBuffer::sync() {
  const char* next = pbase();
  if (beforeWrite_ && next < pptr()) {
    beforeWrite_();
  }
  while (error_ == 0 && next < pptr()) {
    const ssize_t count = ::write(descriptor_, next, static_cast<std::size_t>(pptr() - next));
    if (count >= 0) {
      next += count;
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  setp(buffer_.data(), buffer_.data() + buffer_.size());
  return error_ == 0 ? 0 : -1;
}

bool wantsColor(int descriptor) noexcept {
  const auto variable = [](const char* name) -> std::string_view {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string_view{} : std::string_view{value};
  };
  const std::string_view terminal = variable("TERM");
  return ::isatty(descriptor) == 1 && variable("NO_COLOR").empty() && !terminal.empty() &&
         terminal != "dumb";
}

}  // namespace Cli
