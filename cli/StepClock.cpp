#include "cli/StepClock.h"

#include "platform/Korm/Clock.h"

namespace Cli {
namespace {

double now = 0;

}  // namespace

void StepClock::install() noexcept {
  now = 0;
  Korm::clockIs([] { return now; });
}

void StepClock::advance() noexcept { now += 1; }

}  // namespace Cli
