// Every input that the fuzzer has found worth keeping, once.
#include "tests/fuzz/Targets.h"

namespace {

class Corpus : public testing::TestWithParam<Fuzz::Target> {};

TEST_P(Corpus, IsTaken) {
  unsigned inputs = 0;
  const std::filesystem::path folder{OSTRA_CORPUS};
  for (const auto& file : std::filesystem::directory_iterator{folder / GetParam().name}) {
    SCOPED_TRACE(file.path().string());
    std::ifstream in{file.path(), std::ios::binary};
    const std::vector<char> bytes{std::istreambuf_iterator<char>{in}, {}};
    GetParam().run({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    ++inputs;
  }
  EXPECT_GT(inputs, 0U);
}
INSTANTIATE_TEST_SUITE_P(Targets, Corpus, testing::ValuesIn(Fuzz::targets),
                         [](const auto& target) { return std::string{target.param.name}; });

}  // namespace
