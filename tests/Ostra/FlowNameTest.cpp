#include "FlowFixture.h"

namespace OstraTest {
namespace {

using Ostra::buildFlowName;
using Ostra::flowIdFromName;

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

TEST(FlowName, IsThePrefixAndThePlainDecimalHandle) {
  EXPECT_EQ(buildFlowName(0), "flow-0");
  EXPECT_EQ(buildFlowName(largest), "flow-18446744073709551615");
  for (unsigned bit = 0; bit < 64; ++bit) {
    const std::uint64_t handle = std::uint64_t{1} << bit;
    EXPECT_EQ(flowIdFromName(buildFlowName(handle)), handle);
    EXPECT_EQ(flowIdFromName(buildFlowName(handle - 1)), handle - 1);
  }
}

TEST(FlowName, AgreesWithFormattedInputOnRandomNames) {
  std::mt19937 random{20240611};
  constexpr std::string_view letters = "flow- +0123456789\tF";
  for (int round = 0; round < 20'000; ++round) {
    std::string name = random() % 8 == 0 ? "" : "flow-";
    for (auto length = random() % 24; length > 0; --length) {
      name += random() % 3 == 0 ? letters[random() % letters.size()]
                                : static_cast<char>('0' + random() % 10);
    }
    unsigned long expected = 0;
    if (std::sscanf(name.c_str(), "flow-%lu", &expected) <= 0) {
      expected = 0;
    }
    ASSERT_EQ(flowIdFromName(name), expected) << name;
  }
}

}  // namespace
}  // namespace OstraTest
