// ostra-p4rt as a process.
#pragma once

#include <string>
#include <utility>

#include "tests/cli/CliProgram.h"
#include "tests/p4rt/server/TestServer.h"

namespace P4rtTest {

// A server on a free port that has said where it listens.
class Program {
 public:
  explicit Program(CliTest::Arguments more)
      : process{OSTRA_P4RT_PROGRAM, all(std::move(more))},
        greeting(CliTest::Json::parse(process.readUntil("\n"))) {}

  [[nodiscard]] std::string address() const { return greeting.at("address"); }
  // Types a command, and a line behind it that tells where its output ends.
  std::string type(const std::string& command) {
    process.write(command + "\necho end-of-output\n");
    const std::string end = "{\"type\":\"echo\",\"text\":\"end-of-output\"}\n";
    std::string output = process.readUntil(end);
    return output.substr(0, output.size() - end.size());
  }

 private:
  static CliTest::Arguments all(CliTest::Arguments more) {
    more.insert(more.end(), {"--json", "--listen", "127.0.0.1:0", "--config", OSTRA_TOPOLOGY});
    return more;
  }

 public:
  CliTest::Process process;
  const CliTest::Json greeting;
};

}  // namespace P4rtTest
