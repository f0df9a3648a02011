// Plays random histories, seed after seed, until the time is up or one ends in a difference.
//
//   ostra-soak [MINUTES [FIRST-SEED]]
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "tests/soak/Soak.h"

int main(int argc, char** argv) {
  using Seconds = std::chrono::duration<double>;
  constexpr std::size_t commandsOfSeed = 4000;
  const double limit = 60 * (argc > 1 ? std::strtod(argv[1], nullptr) : 1);
  std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  std::size_t histories = 0, commands = 0, writes = 0;
  const auto start = std::chrono::steady_clock::now();
  for (double now = 0, said = 0; histories == 0 || now < limit; ++seed) {
    const Soak::Outcome outcome = Soak::soak(seed, commandsOfSeed);
    if (!outcome.difference.empty()) {
      std::cout << "seed " << seed << " differs at command " << outcome.played.size()
                << "; shrinking\n"
                << std::flush << Soak::shrunk(outcome).script;
      return 1;
    }
    ++histories;
    commands += outcome.played.size();
    writes += outcome.writes;
    now = Seconds{std::chrono::steady_clock::now() - start}.count();
    if (histories == 20 || now > said + 60 || now >= limit) {
      said = now;
      rusage usage{};
      (void)::getrusage(RUSAGE_SELF, &usage);
      std::cout << histories << " histories, " << commands << " commands, " << writes
                << " writes in " << static_cast<long>(now) << " s; at most " << usage.ru_maxrss
                << " kB resident"
                << "\n"
                << std::flush;
    }
  }
  std::cout << "no difference\n";
  return 0;
}
