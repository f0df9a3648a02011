// What an operator reads: every line that the library traces, with its level and the unit that it
// names.

#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"
#include "tests/Transcript.h"
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
  TestSupport::expectTranscript(OSTRA_TRACE_TRANSCRIPT, [this](const std::string& command) {
    play(command);
    return std::exchange(traced_, {});
  });
}

}  // namespace
