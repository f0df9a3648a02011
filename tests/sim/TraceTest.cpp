// What an operator reads: every line that the library traces, with its level and the unit that it
// names, below the command that it comes of.

#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"
#include "tests/sim/SwitchFixture.h"

namespace {

class Trace : public SwitchTest::Switch {
 protected:
  Trace() {
    Ostra::traceHandle.levelIs(9);
    Brisklog::textSinkIs([this](const Brisklog::TextMessage& message) {
      EXPECT_EQ(message.handle, "Ostra");
      traced_ += std::to_string(message.level) + " " + std::string{message.unit} + " " +
                 std::string{message.text} + "\n";
    });
  }
  ~Trace() override {
    Brisklog::textSinkIs(nullptr);
    Ostra::traceHandle.levelIs(-1);
  }

  std::string traced_;
};

TEST_F(Trace, IsThatOfTheTranscript) {
  std::ifstream file{OSTRA_TRACE_TRANSCRIPT};
  std::string expected;
  for (std::string line; std::getline(file, line);) {
    expected += line + "\n";
    if (line.empty() || line.starts_with('#')) {
      traced_ += line + "\n";
    } else if (line.starts_with("> ")) {
      traced_ += line + "\n";
      play(line.substr(2));
    }
  }
  EXPECT_EQ(traced_, expected);
}

}  // namespace
