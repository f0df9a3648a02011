// Input that nobody means, and a lot of it.

#include <algorithm>
#include <array>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CliProgram.h"

namespace {

using CliTest::Finished;
using CliTest::Json;

std::string scenario(const std::string& name) {
  return CliTest::contentOf(OSTRA_SCENARIOS "/" + name + ".txt");
}

// Plays scripts that are made with one random generator each: every line that comes of them is JSON, and
// the program ends by itself.
template <class Make>
void playMany(unsigned scripts, Make make) {
  for (unsigned seed = 1; seed <= scripts; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random{seed};
    const Finished finished = CliTest::sim(make(random), {"--json", "-k", "--clock", "steps"});
    EXPECT_TRUE(finished.status == 0 || finished.status == 2) << finished.status << finished.errors;
    for (const std::string& line : CliTest::linesOf(finished.out)) {
      const Json object = Json::parse(line, nullptr, false);
      ASSERT_TRUE(object.is_object() && object.contains("type")) << line;
    }
  }
}

TEST(CliRobust, RandomWordsOfTheLanguageNeverCrashIt) {
  std::vector<std::string> words;
  for (const char* const name : {"flows", "vrfs", "ecmp", "failures", "restart"}) {
    std::istringstream script{scenario(name)};
    for (std::string word; script >> word;) {
      words.push_back(word);
    }
  }
  playMany(20, [&words](std::mt19937& random) {
    static constexpr std::array starts{"insert ", "modify ", "delete ", "hw ",     "show ",
                                       "corvex ", "no ",     "",        "start\n", "stop\n"};
    std::string script;
    for (int line = 0; line < 300; ++line) {
      script += starts[random() % starts.size()];
      for (std::size_t count = random() % 6; count > 0; --count) {
        script += words[random() % words.size()] + " ";
      }
      script += '\n';
    }
    return script;
  });
}

TEST(CliRobust, ScriptsThatAreDamagedAndCutOffNeverCrashIt) {
  const std::string whole = scenario("tour") + scenario("failures") + scenario("ecmp");
  playMany(40, [&whole](std::mt19937& random) {
    std::string script = whole;
    for (int damage = 0; damage < 40; ++damage) {
      const std::size_t at = random() % script.size();
      switch (random() % 3) {
        case 0:
          script[at] = static_cast<char>(random());
          break;
        case 1:
          script.erase(at, random() % 30);
          break;
        default:
          script.insert(at, script.substr(random() % script.size(), random() % 200));
      }
    }
    return script.substr(0, random() % script.size());
  });
}

}  // namespace
