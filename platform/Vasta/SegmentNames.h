// The names of the shared-memory objects of one table.
#pragma once

#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/Korm/Segment.h"
#include "platform/Korm/Text.h"

namespace Vasta {

// A table's name may contain any character; two different names never share an object.
class SegmentNames {
 public:
  // Throws: std::invalid_argument for an empty name or one too long for the system.
  explicit SegmentNames(std::string_view shmName) : header_{escaped(shmName)} {}

  [[nodiscard]] const Korm::SegmentName& header() const noexcept { return header_; }
  [[nodiscard]] Korm::SegmentName rows() const noexcept {
    Korm::SegmentName name = header_;
    name.append("#rows");
    return name;
  }
  [[nodiscard]] Korm::SegmentName index(std::uint64_t generation) const noexcept {
    char digits[20];
    const char* const end = std::to_chars(digits, digits + sizeof digits, generation).ptr;
    Korm::SegmentName name = header_;
    name.append("#index.");
    name.append({digits, static_cast<std::size_t>(end - digits)});
    return name;
  }

 private:
  // Leaves room for the suffixes, so that appending one cannot fail.
  static constexpr std::size_t longestHeaderName = NAME_MAX - 32;

  [[nodiscard]] static bool isPlain(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
  }
  [[nodiscard]] static std::string escaped(std::string_view shmName) {
    std::string text = "/vasta.";
    for (const char c : shmName) {
      if (isPlain(c)) {
        text += c;
      } else {
        Korm::appendHex(text += '%', static_cast<std::uint8_t>(c));
      }
    }
    if (shmName.empty() || text.size() > longestHeaderName) {
      throw std::invalid_argument{"not a name for a shared table: '" + std::string{shmName} + "'"};
    }
    return text;
  }

  Korm::SegmentName header_;
};

}  // namespace Vasta
