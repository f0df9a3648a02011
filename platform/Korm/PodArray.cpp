#include "platform/Korm/PodArray.h"

#include <sstream>

#include "platform/Korm/Text.h"

namespace Korm::detail {

void throwPodArraySize(std::size_t limit, std::size_t count, const void* buffer,
                       std::size_t bytes) {
  constexpr std::size_t shown = 64;
  std::ostringstream text;
  text << "PodArray::set expected size <= " << limit << ", instead got " << count
       << ". Buffer is at address: " << buffer
       << " with contents: " << hexText(buffer, std::min(bytes, shown));
  if (bytes > shown) {
    text << "...";
  }
  throwRangeException(std::move(text).str());
}

}  // namespace Korm::detail
