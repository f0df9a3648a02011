// One target, named by the build, for libFuzzer.
#include "tests/fuzz/Targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::OSTRA_FUZZ_TARGET({data, size});
  return 0;
}
