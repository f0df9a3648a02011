// Commands, on a whole switch whose output is read again.
#include "cli/StepClock.h"
#include "cli/language/Interpreter.h"
#include "platform/Korm/Exceptions.h"
#include "tests/fuzz/Targets.h"
#include <nlohmann/json.hpp>

namespace Fuzz {
namespace {

void play(Cli::Printer& printer, const std::string& text) {
  Cli::StepClock::install();
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
  service.start();
  Cli::Interpreter interpreter{service, agent, printer, {.keepGoing = true}};
  std::istringstream lines{text};
  for (std::string line; std::getline(lines, line) && !interpreter.ended();) {
    interpreter.playLine({.text = line}, "fuzz");
  }
  interpreter.finish();
  service.verify();
  agent.verify();
}

}  // namespace

// The first character chooses the printer.
void language(Bytes bytes) {
  constexpr std::size_t longest = 4096;
  const std::string text = textOf(bytes.first(std::min(bytes.size(), longest)));
  std::ostringstream out;
  if (text.starts_with('#')) {
    std::ostringstream errors;
    play(*Cli::textPrinter(out, errors, {}), text);
    return;
  }
  play(*Cli::jsonPrinter(out), text);
  std::istringstream printed{out.str()};
  for (std::string line; std::getline(printed, line);) {
    Korm::assertTrue(nlohmann::json::accept(line), "every line of output is an object");
  }
}

}  // namespace Fuzz
