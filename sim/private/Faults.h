// The faults in the service's memory from which it has recovered: damaged rows, and shared memory
// that ran out.
//
// Threads: the activity thread.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Sim {

class Faults {
 public:
  // Drops a fault that is known already, and any beyond the hundredth.
  void add(std::string_view text) {
    if (texts_.size() < most && std::find(texts_.begin(), texts_.end(), text) == texts_.end()) {
      texts_.emplace_back(text);
    }
  }
  // Adds the fault of something that has been removed for it.
  void addDropped(const std::string& text) { add(text + "; it is dropped"); }
  [[nodiscard]] std::vector<std::string> take() { return std::exchange(texts_, {}); }

 private:
  static constexpr std::size_t most = 100;

  std::vector<std::string> texts_;
};

}  // namespace Sim
