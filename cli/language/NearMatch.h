// Finds the word that a misspelt one was probably meant to be.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Cli {

// The edit distance: the least number of letters to insert, remove, replace, or swap with their
// neighbour, to turn one text into the other.
[[nodiscard]] std::size_t editDistance(std::string_view a, std::string_view b);

// Remembers the nearest candidate. Only candidates with a mistake in at most every third letter
// count.
class NearMatch {
 public:
  explicit NearMatch(std::string_view word) noexcept;

  void consider(std::string_view candidate);
  // Empty when none was near.
  [[nodiscard]] const std::string& match() const noexcept { return match_; }

 private:
  const std::string_view word_;
  std::size_t distance_;  // a better match must be nearer
  std::string match_;
};

template <class Candidates>
[[nodiscard]] std::string nearMatch(std::string_view word, const Candidates& candidates) {
  NearMatch near{word};
  for (const auto& candidate : candidates) {
    if constexpr (requires { candidate.name; }) {
      near.consider(candidate.name);
    } else {
      near.consider(candidate);
    }
  }
  return near.match();
}

}  // namespace Cli
