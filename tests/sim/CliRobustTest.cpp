// Input that nobody means, and a lot of it.

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
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
  std::ifstream file{std::filesystem::path{OSTRA_SCENARIOS} / (name + ".txt")};
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

const std::vector<std::string>& words() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> result;
    for (const char* const name : {"flows", "vrfs", "ecmp", "failures", "restart"}) {
      std::istringstream script{scenario(name)};
      for (std::string word; script >> word;) {
        result.push_back(word);
      }
    }
    return result;
  }();
  return all;
}

// Every line is JSON, and the program ended by itself.
void expectSane(const std::string& script, const std::string& what) {
  const Finished finished = CliTest::sim(script, {"--json", "-k", "--clock", "steps"});
  EXPECT_TRUE(finished.status == 0 || finished.status == 2)
      << what << ": " << finished.status << finished.errors;
  for (const std::string& line : CliTest::linesOf(finished.out)) {
    const Json object = Json::parse(line, nullptr, false);
    ASSERT_TRUE(object.is_object() && object.contains("type")) << what << ": " << line;
  }
}

TEST(CliRobust, RandomBytesNeverCrashIt) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random{seed};
    std::string script(20000, '\0');
    std::generate(script.begin(), script.end(), [&random] { return static_cast<char>(random()); });
    expectSane(script, "seed " + std::to_string(seed));
  }
}

TEST(CliRobust, RandomWordsOfTheLanguageNeverCrashIt) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random{seed};
    static constexpr std::array starts{"insert ", "modify ", "delete ", "hw ",     "show ",
                                       "corvex ", "no ",     "",        "start\n", "stop\n"};
    std::string script;
    for (int line = 0; line < 300; ++line) {
      script += starts[random() % starts.size()];
      for (std::size_t count = random() % 6; count > 0; --count) {
        script += words()[random() % words().size()] + " ";
      }
      script += '\n';
    }
    expectSane(script, "seed " + std::to_string(seed));
  }
}

TEST(CliRobust, DamagedScriptsNeverCrashIt) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random{seed};
    std::string script = scenario("tour") + scenario("failures") + scenario("ecmp");
    for (int damage = 0; damage < 40; ++damage) {
      const std::size_t at = random() % script.size();
      switch (random() % 4) {
        case 0:
          script[at] = static_cast<char>(random());
          break;
        case 1:
          script.erase(at, random() % 30);
          break;
        case 2:
          script.insert(at, script.substr(random() % script.size(), random() % 200));
          break;
        default:
          script[at] = '9';
      }
    }
    expectSane(script, "seed " + std::to_string(seed));
  }
}

TEST(CliRobust, ScriptsThatEndAnywhereNeverCrashIt) {
  const std::string script = scenario("tour");
  std::mt19937 random{1};
  for (int cut = 0; cut < 40; ++cut) {
    expectSane(script.substr(0, random() % script.size()), "cut " + std::to_string(cut));
  }
}

TEST(CliRobust, AHundredThousandInsertsPlayInSeconds) {
  std::string script;
  for (unsigned number = 0; number < 100000; ++number) {
    script += "insert flow priority=" + std::to_string(number % 1000) +
              " hdr.ethernet.ether_type=0x0800 hdr.ipv4_base.dst_addr=10." +
              std::to_string(number >> 16) + "." + std::to_string(number >> 8 & 255) + "." +
              std::to_string(number & 255) + " -> dec-ttl\n";
  }
  const auto begin = std::chrono::steady_clock::now();
  const Finished finished = CliTest::sim(script, {"--json"});
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(finished.status, 0);
  const auto lines = CliTest::linesOf(finished.out);
  ASSERT_EQ(lines.size(), 100000U);
  EXPECT_EQ(lines.back(),
            R"({"type":"result","op":"insert","kind":"flow","handle":100000,"state":"done",)"
            R"("code":0,"message":""})");
  EXPECT_LT(seconds.count(), 40) << "it takes about one on a quiet machine";
}

}  // namespace
