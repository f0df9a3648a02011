// Plays histories on the switch and on the model, and looks for the first difference.
//
// Thread and process rule: the activity thread; one history at a time.
#pragma once

#include "tests/soak/Commands.h"

namespace Soak {

struct Outcome {
  std::string difference;  // empty: there is none
  std::size_t writes = 0;  // of a controller
  History played;          // up to the difference
  std::string script;      // the difference and the commands, for ostra-sim
};

// Plays `commands` random commands.
[[nodiscard]] Outcome soak(std::uint64_t seed, std::size_t commands);
// The shortest part of its history that is found, and that still ends in a difference.
[[nodiscard]] Outcome shrunk(Outcome outcome);

}  // namespace Soak
