// Identifiers and error codes of the P4Runtime service.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/Korm/Hash.h"

namespace P4Runtime {

// The service's handle of one stored entry, under which its results are reported; 0 is none.
// Converts to and from its number.
class EntryHandle {
 public:
  constexpr EntryHandle() noexcept = default;
  constexpr EntryHandle(std::uint64_t number) noexcept  // NOLINT(google-explicit-constructor)
      : number_{number} {}
  constexpr operator std::uint64_t() const noexcept {  // NOLINT(google-explicit-constructor)
    return number_;
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return static_cast<std::uint32_t>(Korm::hashMix(number_ ^ seed) >> 32);
  }
  friend std::uint64_t brisklogArgument(EntryHandle handle) noexcept { return handle.number_; }

 private:
  std::uint64_t number_ = 0;
};

std::ostream& operator<<(std::ostream& out, EntryHandle handle);

// A port of the P4 program.
using P4PortId = std::uint32_t;

// An action-profile member or group.
using MemberOrGroupId = std::uint32_t;

// Results of a write. 1, 6, 7 and 19 come from the hardware; the other errors come from validation.
enum class ErrorCode : std::uint32_t {
  success_ = 0,
  hardwareResourceExhausted_ = 1,
  actionNotSupported_ = 6,
  matchNotSupported_ = 7,
  undefinedBehavior_ = 13,
  notAllowed_ = 14,
  invalidArgument_ = 15,
  notFound_ = 16,
  invalidMask_ = 17,
  hardwareError_ = 19,
};

// The name of a code, such as "invalidArgument"; the number of a code without a name.
[[nodiscard]] std::string errorCodeText(ErrorCode code);
// Reads what errorCodeText() prints from the front of the text, and moves `current` behind it.
// Throws: Korm::RangeException for anything else.
[[nodiscard]] ErrorCode parseErrorCode(std::string::const_iterator& current,
                                       std::string::const_iterator end);
std::ostream& operator<<(std::ostream& out, ErrorCode code);

}  // namespace P4Runtime
