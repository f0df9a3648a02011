// The command line of ostra-sim, and how it deals with its surroundings: files, pipes, terminals,
// signals.

#include "CliProgram.h"

namespace {

using namespace CliTest;

TEST(CliOption, AMistakeIsNamedAndNothingIsPlayed) {
  struct Wrong {
    std::string program;
    Arguments arguments;
    std::string says;
  };
  const std::string sim = OSTRA_SIM_PROGRAM;
  const std::string show = OSTRA_SHOW_PROGRAM;
  const std::vector<Wrong> commandLines{
      {sim, {"--jsno"}, "did you mean '--json'?"},
      {sim, {"--json=yes"}, "expected --json"},
      {sim, {"-x"}, "'-x'"},
      {sim, {"--trace"}, "expected N"},
      {sim, {"--trace", "-1"}, "'-1'"},
      {sim, {"--clock", "stops"}, "--clock steps"},
      {sim, {"--shm", "a/b"}, "letters, digits"},
      {sim, {"--shm="}, "letters, digits"},
      {sim, {"-", "/no/such/file"}, "cannot read '/no/such/file': No such file"},
      {sim, {"/tmp"}, "cannot read '/tmp': Is a directory"},
      {sim, {"--", "--json"}, "cannot read '--json'"},
      {show, {}, "for NAME, expected 1 to 128"},
      {show, {"a/b"}, "'a/b' for NAME"},
      {show, {"x", "flws"}, "did you mean 'flows'?"},
      {show, {"x", "--folow"}, "did you mean '--follow'?"},
      {show, {"x", "--check=1"}, "--check"},
      {show, {"--nothing"}, "expected --follow"},
  };
  for (const auto& [program, arguments, says] : commandLines) {
    const TemporaryFile input{"echo played\n"};
    const Finished finished = Process{program, arguments, input.path()}.finish();
    EXPECT_EQ(finished.status, 2) << says;
    EXPECT_EQ(finished.out, "") << says;
    EXPECT_THAT(
        finished.errors,
        AllOf(HasSubstr(says), StartsWith(program == sim ? "ostra-sim: " : "ostra-show: ")));
  }
  EXPECT_THAT(CliTest::show({"--help"}).out, HasSubstr("Usage: ostra-show"));
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

TEST(CliTerminal, HasAPromptForgivesMistakesAndUsesColor) {
  ::setenv("TERM", "xterm", 1);
  ::unsetenv("NO_COLOR");
  Process process{Process::OnTerminal{}, OSTRA_SIM_PROGRAM, {}};
  EXPECT_THAT(process.readUntil("ostra> "), HasSubstr("help"));
  process.write("insert flow priority=1 -> drop\n");
  EXPECT_THAT(process.readUntil("ostra> "), HasSubstr("\x1b[32mdone\x1b[0m"));
  process.write("bogus\nbegin\n");
  EXPECT_THAT(process.readUntil("batch> "), HasSubstr("error"));
  process.write("commit\nquit\n");
  EXPECT_EQ(process.finish().status, 2);  // for the mistake
}

// How a run goes on after a line that makes no sense. What is said of each is in the transcripts.

TEST(CliMistake, EndsTheRunUnlessToldToKeepGoing) {
  const TemporaryFile file{"echo one\nbogus\necho two\n"};
  const Finished stopped = sim({}, {file.path()});
  EXPECT_EQ(stopped.status, 2);
  EXPECT_EQ(stopped.out, "one\n");
  EXPECT_THAT(stopped.errors, HasSubstr(file.path() + ":2: error: read 'bogus', expected"));
  const Finished kept = sim({}, {"--keep-going", file.path()});
  EXPECT_EQ(kept.status, 2);
  EXPECT_EQ(kept.out, "one\ntwo\n");
  const std::string batch =
      "begin\ninsert flow priority=1 -> drop\ninsert flow priority=2 -> drop\n";
  const auto open = simJson(batch, 2);
  ASSERT_EQ(open.size(), 1U);
  EXPECT_EQ(open[0]["where"], "-:1");
  EXPECT_THAT(open[0]["message"], HasSubstr("expected a 'commit' after it; 2 writes not applied"));
  // A mistake inside a batch ends the run too, and one message is enough.
  EXPECT_EQ(simJson(batch + "bogus\n", 2).size(), 1U);
}

TEST(CliMistake, IsShownInOneLineOfPrintableCharacters) {
  const auto finished = sim("bo\x1b[31m\a" + std::string(5000, 'x') + "\n");
  EXPECT_LT(finished.errors.size(), 200U);
  EXPECT_THAT(finished.errors, HasSubstr("'bo\\x1b[31m\\x07xxx"));
  // JSON has no room for bytes that are not UTF-8.
  EXPECT_EQ(simJson("bogus\xff\xfe\n", 2).size(), 1U);
  EXPECT_EQ(simJson("echo \xc3\x28\n").size(), 1U);
}

TEST(CliMistake, ALineWithoutAnEndIsRefused) {
  const auto lines = simJson("echo " + std::string(3 << 20, 'x') + "\necho next\n", 2, {"-k"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0]["message"], HasSubstr("a line of more than"));
  EXPECT_EQ(lines[1]["text"], "next");
}

}  // namespace
