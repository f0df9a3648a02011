// Random commands: a seed makes a small world of keys, members, groups and VRFs, and a mix of
// commands.
//
// Thread and process rule: a value.
#pragma once

#include <random>

#include "tests/soak/Model.h"

namespace Soak {

class Generator {
 public:
  explicit Generator(std::uint64_t seed);

  // The next command for a switch in that state.
  Command next(const Model& model);

 private:
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  bool oneIn(std::uint64_t count) { return below(count) == 0; }
  template <class T>
  const T& anyOf(const std::vector<T>& values) {
    return values[below(values.size())];
  }

  FlowKey newKey();
  MatchField newField(Field field);
  void addField(FlowKey& key, Field field);
  FlowActions actions();
  Op op(bool stored);
  Step write(const Model& model);
  Step flow(const Model& model);
  Step member(const Model& model);
  Step group(const Model& model);
  std::string flowName(const Model& model);
  std::uint64_t corvexGroup();
  Step hardware(const Model& model);
  Step life(const Model& model);
  Step configuration();
  Step other(const Model& model);

  std::mt19937_64 random_;
  std::vector<FlowKey> keys_;
  std::vector<std::uint32_t> memberIds_, groupIds_, ports_, vrfs_;
  // How often, of 100.
  std::uint64_t faults_ = 0, hardware_ = 0, configuration_ = 0, life_ = 0, members_ = 0,
                damage_ = 0;
  std::uint64_t longestBatch_ = 1;
};

}  // namespace Soak
