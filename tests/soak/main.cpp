// The long run: seed after seed until the time is up or a history ends in a difference.
//
//   ostra-soak [MINUTES [FIRST-SEED]]
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "tests/soak/Soak.h"

int main(int argc, char** argv) {
  constexpr std::size_t commandsOfSeed = 4000;
  const double minutes = argc > 1 ? std::strtod(argv[1], nullptr) : 1;
  std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  std::size_t histories = 0, commands = 0, writes = 0;
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto say = [&] {
    rusage usage{};
    (void)::getrusage(RUSAGE_SELF, &usage);
    std::cout << histories << " histories, " << commands << " commands, " << writes << " writes in "
              << static_cast<long>(elapsed()) << " s; at most " << usage.ru_maxrss
              << " kB resident\n"
              << std::flush;
  };
  double said = 0;
  for (; histories == 0 || elapsed() < minutes * 60; ++seed) {
    const Soak::Outcome outcome = Soak::soak(seed, commandsOfSeed);
    ++histories;
    commands += outcome.commands;
    writes += outcome.writes;
    if (!outcome.difference.empty()) {
      std::cout << "seed " << seed << " differs at command " << outcome.commands << "; shrinking\n"
                << std::flush << Soak::shrunk(outcome.played).script;
      return 1;
    }
    if (histories == 20 || elapsed() > said + 60) {
      said = elapsed();
      say();
    }
  }
  say();
  std::cout << "no difference\n";
  return 0;
}
