#include "platform/Korm/PodArray.h"

#include <sstream>

namespace Korm::detail {

void throwPodArraySize(std::size_t limit, std::size_t count, const void* buffer,
                       std::size_t bytes) {
  constexpr std::size_t shown = 64;
  constexpr const char* digits = "0123456789abcdef";
  std::ostringstream text;
  text << "PodArray::set expected size <= " << limit << ", instead got " << count
       << ". Buffer is at address: " << buffer << " with contents: ";
  const auto* const at = static_cast<const unsigned char*>(buffer);
  for (std::size_t byte = 0; byte < std::min(bytes, shown); ++byte) {
    text << digits[at[byte] >> 4U] << digits[at[byte] & 0xFU];
  }
  if (bytes > shown) {
    text << "...";
  }
  throwRangeException(std::move(text).str());
}

}  // namespace Korm::detail
