#include "sim/private/NameOrder.h"

#include <algorithm>
#include <compare>

namespace Sim {
namespace {

constexpr std::string_view digits = "0123456789";

// The first number without leading zeros; empty when there is none.
std::string_view numberIn(std::string_view name) noexcept {
  const auto start = name.find_first_of(digits);
  if (start == std::string_view::npos) {
    return {};
  }
  const auto end = std::min(name.find_first_not_of(digits, start), name.size());
  const auto first = std::min(name.find_first_not_of('0', start), end - 1);
  return name.substr(first, end - first);
}

}  // namespace

bool numberedBefore(std::string_view a, std::string_view b) noexcept {
  const std::string_view numberA = numberIn(a);
  const std::string_view numberB = numberIn(b);
  if (numberA.empty() != numberB.empty()) {
    return numberB.empty();
  }
  if (numberA.size() != numberB.size()) {
    return numberA.size() < numberB.size();
  }
  return numberA != numberB ? numberA < numberB : a < b;
}

}  // namespace Sim
