// Plays histories on the switch and on the model, and looks for the first difference.
//
// Thread and process rule: the activity thread; one history at a time.
#pragma once

#include "tests/soak/Commands.h"

namespace Soak {

using History = std::vector<Command>;

struct Outcome {
  std::string difference;       // empty: there is none
  std::size_t commands = 0;     // that were played
  std::size_t writes = 0;       // of a controller among them
  std::vector<Command> played;  // up to the difference
};

// Plays `commands` random commands.
[[nodiscard]] Outcome soak(std::uint64_t seed, std::size_t commands);
// Plays a given history.
[[nodiscard]] Outcome replay(const History& history);

// A part of the history, as small as removing commands and writes makes it, that still ends in a
// difference.
[[nodiscard]] History shrunk(History history);

// The difference and the history, as a script for ostra-sim.
[[nodiscard]] std::string script(std::uint64_t seed, const Outcome& outcome);

}  // namespace Soak
