#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <utility>

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

TEST(FlowName, IsReadAsFormattedInputReadsIt) {
  const std::pair<std::string, std::uint64_t> names[] = {
      {"flow-42", 42},
      {"flow--5", largest - 4},
      {"flow-+7", 7},
      {"flow- 42", 42},
      {"flow-12abc", 12},
      {"flow-12-3", 12},
      {"flow-007", 7},
      {"flow-18446744073709551616", largest},
      {"flow--99999999999999999999999999", largest},
      {std::string{"flow-5\0006", 8}, 5},
      {"flow-0", 0},
      {"flow-", 0},
      {"flow", 0},
      {"Flow-1", 0},
      {"fl-1", 0},
      {" flow-1", 0},
      {"", 0},
  };
  for (const auto& [name, identifier] : names) {
    EXPECT_EQ(flowIdFromName(name), identifier) << name;
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

TEST(FlowName, IsTracedOnlyIfItDoesNotParse) {
  TextTrace trace{0};
  for (const char* const name : {"flow-0", "flow-42xyz", "flow- \t\n 42", "flow--0"}) {
    static_cast<void>(flowIdFromName(name));
    EXPECT_EQ(trace.take(), Texts{}) << name;
  }
  for (const char* const name : {"", "flow-", "flow-x", " flow-1", "flow-- 5", "mine"}) {
    EXPECT_EQ(flowIdFromName(name), 0U) << name;
    EXPECT_EQ(trace.places(), Texts{"Ostra/FlowUtil:19"}) << name;
    EXPECT_EQ(trace.take(),
              Texts{std::string{"0 Ostra::flowIdFromName Invalid flow Name: "} + name});
  }
}

}  // namespace
}  // namespace OstraTest
