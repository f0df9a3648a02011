#include "cli/language/NearMatch.h"

#include <algorithm>
#include <vector>

namespace Cli {
namespace {

// A longer word is not a misspelt word of the language.
constexpr std::size_t longestWord = 64;

}  // namespace

std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> beforeLast(b.size() + 1);
  std::vector<std::size_t> last(b.size() + 1);
  std::vector<std::size_t> current(b.size() + 1);
  for (std::size_t column = 0; column <= b.size(); ++column) {
    last[column] = column;
  }
  for (std::size_t row = 1; row <= a.size(); ++row) {
    current[0] = row;
    for (std::size_t column = 1; column <= b.size(); ++column) {
      const std::size_t replaced = last[column - 1] + (a[row - 1] == b[column - 1] ? 0 : 1);
      current[column] = std::min({last[column] + 1, current[column - 1] + 1, replaced});
      if (row > 1 && column > 1 && a[row - 1] == b[column - 2] && a[row - 2] == b[column - 1]) {
        current[column] = std::min(current[column], beforeLast[column - 2] + 1);
      }
    }
    std::swap(beforeLast, last);
    std::swap(last, current);
  }
  return last[b.size()];
}

NearMatch::NearMatch(std::string_view word) noexcept
    : word_{word}, distance_{word.size() / 3 + (word.size() > 1 ? 2U : 1U)} {}

void NearMatch::consider(std::string_view candidate) {
  if (word_.empty() || word_.size() > longestWord) {
    return;
  }
  const std::size_t distance = editDistance(word_, candidate);
  if (distance < distance_ && distance < candidate.size()) {
    distance_ = distance;
    match_ = candidate;
  }
}

}  // namespace Cli
