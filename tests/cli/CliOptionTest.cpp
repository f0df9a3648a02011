// The command line of ostra-sim, and how it deals with its surroundings: files, pipes, terminals,
// signals.

#include "CliProgram.h"

namespace {

using namespace CliTest;

TEST(CliOption, AMistakeIsNamedAndNothingIsPlayed) {
  const std::vector<std::pair<Arguments, std::string>> mistakes{
      {{"--jsno"}, "did you mean '--json'?"},
      {{"--json=yes"}, "expected --json"},
      {{"-x"}, "'-x'"},
      {{"--trace"}, "expected N"},
      {{"--trace", "-1"}, "'-1'"},
      {{"--clock", "stops"}, "--clock steps"},
      {{"--shm", "a/b"}, "letters, digits"},
      {{"--shm="}, "letters, digits"},
      {{"-", "/no/such/file"}, "cannot read '/no/such/file': No such file"},
      {{"/tmp"}, "cannot read '/tmp': Is a directory"},
      {{"--", "--json"}, "cannot read '--json'"},
  };
  for (const auto& [arguments, says] : mistakes) {
    const Finished finished = sim("echo played\n", arguments);
    EXPECT_EQ(finished.status, 2) << says;
    EXPECT_EQ(finished.out, "") << says;
    EXPECT_THAT(finished.errors, HasSubstr(says));
    EXPECT_THAT(finished.errors, StartsWith("ostra-sim: "));
  }
}

TEST(CliOption, FilesArePlayedInOrderUpToQuitAndADashIsStandardInput) {
  const TemporaryFile first{"echo first"};
  const TemporaryFile last{"echo last\nquit\nbogus\n"};
  const Finished finished = sim("echo middle\n", {first.path(), "-", last.path(), first.path()});
  EXPECT_EQ(finished.status, 0);
  EXPECT_EQ(finished.out, "first\nmiddle\nlast\n");
  // A batch may go on in the next file; places are those of each file.
  const TemporaryFile batch{"begin\ninsert flow priority=1 -> drop\n"};
  const auto lines = simJson("commit\nbogus\n", 2, {batch.path(), "-"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0]["code"], 0);
  EXPECT_EQ(lines[1]["where"], "-:2");
}

TEST(CliOption, WhoeverDrivesItThroughPipesIsAnsweredAtOnce) {
  Process process{OSTRA_SIM_PROGRAM, {"--json"}};
  process.write("insert flow priority=1 -> drop\n");
  process.readUntil(R"("handle":1)");
  process.write("echo half a li");
  process.write("ne\n");
  process.readUntil("half a line");
  EXPECT_EQ(process.finish("quit\n").status, 0);
}

TEST(CliOption, ASignalEndsItAndRemovesSharedMemory) {
  const std::string name = uniqueName("ostra-signal-test");
  Process process{OSTRA_SIM_PROGRAM, {"--shm", name}};
  process.write("echo ready\n");
  process.readUntil("ready");
  EXPECT_EQ(show({name, "status"}).status, 0);
  // A name is one process's.
  const Finished second = sim("", {"--shm", name});
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.errors, HasSubstr(name));
  process.kill(SIGTERM);
  EXPECT_EQ(process.finish().status, -SIGTERM);
  EXPECT_EQ(show({name}).status, 1);
}

TEST(CliTerminal, HasAPromptForgivesMistakesAndUsesColor) {
  ::setenv("TERM", "xterm", 1);
  ::unsetenv("NO_COLOR");
  Process process{Process::OnTerminal{}, OSTRA_SIM_PROGRAM, {}};
  EXPECT_THAT(process.readUntil("ostra> "), HasSubstr("help"));
  process.write("insert flow priority=1 -> drop\n");
  EXPECT_THAT(process.readUntil("ostra> "), HasSubstr("\x1b[32mdone\x1b[0m"));
  process.write("bogus\n");
  EXPECT_THAT(process.readUntil("ostra> "), HasSubstr("error"));
  process.write("begin\n");
  process.readUntil("batch> ");
  process.write("commit\n");
  process.readUntil("ostra> ");
  process.write("quit\n");
  EXPECT_EQ(process.finish().status, 2);  // for the mistake
}

}  // namespace
