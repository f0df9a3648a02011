#include "platform/Korm/Exceptions.h"

#include <cstdio>
#include <cstdlib>

namespace Korm {

void throwRangeException(const std::string& message) { throw RangeException{message}; }

void assertionFailed(const char* text, std::string_view unit, int line) noexcept {
  std::fflush(stdout);
  std::fprintf(stderr, "Assertion failed: %s (%.*s:%d)\n", text, static_cast<int>(unit.size()),
               unit.data(), line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Korm
