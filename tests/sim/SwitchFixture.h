// A switch behind the command language, in the process of the test.
#pragma once

#include "cli/language/FlowParser.h"
#include "cli/language/Interpreter.h"
#include "platform/Korm/Activity.h"
#include "platform/Korm/Clock.h"
#include "tests/Testing.h"

namespace SwitchTest {

using namespace TestSupport;

inline constexpr OpenFlowTable::GroupId memberBase = 4294967296;

// The row of a flow, such as "priority=1 -> drop".
inline Ostra::OstraConfigEntry rowOf(std::string_view text) {
  Cli::Words words{text};
  return Cli::parseFlow(words).entry;
}

class Switch : public testing::Test {
 protected:
  enum class Output { text_, json_ };

  explicit Switch(Output output = Output::text_)
      : printer_{output == Output::json_ ? Cli::jsonPrinter(out_)
                                         : Cli::textPrinter(out_, out_, {})} {
    now = 0;
    Korm::clockIs([] { return now; });
    service.start();
  }
  ~Switch() override {
    Korm::activity().run();
    service.verify();
    agent.verify();
    Korm::clockIs(nullptr);
  }

 public:
  // Plays commands, a second each, and returns what they print.
  std::string play(const std::string& commands) {
    std::istringstream lines{commands};
    for (std::string line; std::getline(lines, line);) {
      ++now;
      interpreter_.playLine({.text = line}, "test");
    }
    std::string said = out_.str();
    out_.str({});
    return said;
  }

  static inline double now = 0;

  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};

 private:
  std::ostringstream out_;
  const std::unique_ptr<Cli::Printer> printer_;
  Cli::Interpreter interpreter_{service, agent, *printer_, {.keepGoing = true}};
};

}  // namespace SwitchTest
