// Random histories of the whole switch, each compared with the model after every command.
#include <gtest/gtest.h>

#include "tests/soak/Soak.h"

namespace {

class Histories : public testing::TestWithParam<unsigned> {};

TEST_P(Histories, GoAsTheModelSays) {
  constexpr unsigned seedsOfTest = 8;
  for (unsigned seed = GetParam() * seedsOfTest; seed < (GetParam() + 1) * seedsOfTest; ++seed) {
    const Soak::Outcome outcome = Soak::soak(seed, 500);
    ASSERT_EQ(outcome.difference, "") << "seed " << seed << "\n" << Soak::shrunk(outcome).script;
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, Histories, testing::Range(0U, 8U));

}  // namespace
