// The long run: seed after seed until the time is up or a history ends in a difference.
//
//   ostra-soak [MINUTES [FIRST-SEED]]
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/soak/Soak.h"

namespace {

constexpr std::size_t commandsOfSeed = 4000;

// Kilobytes of memory in use.
std::size_t resident() {
  std::size_t pages = 0;
  std::ifstream statm{"/proc/self/statm"};
  statm >> pages >> pages;
  return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace

int main(int argc, char** argv) {
  const double minutes = argc > 1 ? std::strtod(argv[1], nullptr) : 1;
  std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  std::size_t histories = 0;
  std::size_t commands = 0;
  std::size_t writes = 0;
  const auto say = [&] {
    std::cout << histories << " histories, " << commands << " commands, " << writes << " writes in "
              << static_cast<long>(elapsed()) << " s; " << resident() << " kB resident\n"
              << std::flush;
  };
  double said = 0;
  do {
    Soak::Outcome outcome = Soak::soak(seed, commandsOfSeed);
    if (!outcome.difference.empty()) {
      std::cout << "seed " << seed << " differs at command " << outcome.commands << "; shrinking\n"
                << std::flush;
      std::cout << Soak::script(seed, Soak::replay(Soak::shrunk(std::move(outcome.played))));
      return 1;
    }
    ++seed;
    ++histories;
    commands += outcome.commands;
    writes += outcome.writes;
    if (histories == 20 || elapsed() > said + 60) {
      said = elapsed();
      say();
    }
  } while (elapsed() < minutes * 60);
  say();
  std::cout << "no difference\n";
  return 0;
}
