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

// Lines that make no sense: each is answered with its place, what was read and what was expected.

struct Mistake {
  std::string line;
  std::vector<std::string> says;
};

const std::vector<Mistake> mistakes{
    // Commands.
    {"inser flow priority=1 -> drop", {"'inser'", "a command", "did you mean 'insert'?"}},
    {"show flws", {"'flws'", "flows, groups, vrfs, entries, pending, hw, trace", "'flows'?"}},
    {"show", {"the end of the line", "after 'show'"}},
    {"commit", {"'begin' before it"}},
    {"start", {"'stop' first"}},
    // Ports, encapsulations, members, groups.
    {"port 4294967296 Ethernet1", {"'4294967296'", "from 0 to 4294967295"}},
    {"port 1 Ethernet1/2/3/4/5/6/7/8/9", {"at most 23 characters"}},
    {"encap 65536 src=1.1.1.1 dst=2.2.2.2", {"from 0 to 65535"}},
    {"encap 1 src=1.1.1.1", {"the end of the line", "dst="}},
    {"encap 1 src=1.1.1.1 dst=2001:db8::1", {"'2001:db8::1'", "an IPv4 address for dst"}},
    {"encap 1 src=1.1.1.1 dst=2.2.2.2 type=ip-in-up",
     {"type=ip-in-ip", "did you mean 'ip-in-ip'?"}},
    {"insert member 5 port=1 encap=9 port=2", {"'port'", "twice"}},
    {"insert member 5 port=1 encap=9 dst-mac=02:00:00:00:05", {"a MAC address"}},
    {"insert member 5 port encap=9", {"'port'", "'port='"}},
    {"delete member 5 port=1", {"'port=1'", "the end of the line"}},
    {"insert group 3 members=1,", {"behind the last comma"}},
    {"insert group 3 members=1,2 weights=1", {"1 weights", "2, one for each member"}},
    // Flows.
    {"insert flow -> drop", {"'->'", "priority="}},
    {"insert flow priority=1", {"'->' and the actions"}},
    {"insert flow priority=1 drop", {"'drop'", "behind '->'"}},
    {"insert flow priority=1 -> priority=2", {"'priority=2'", "before '->'"}},
    {"insert flow priority=1 -> dorp", {"'dorp'", "did you mean 'drop'?"}},
    {"insert flow priority=1 -> drop drop", {"'drop'", "twice"}},
    {"insert flow priority=1 -> drop=1", {"'drop=1'", "without a value"}},
    {"insert flow priority=1 -> vrf=1 vrf=2", {"'vrf'", "twice"}},
    {"insert flow priority=1 -> mirror-ingress=", {"no value", "the name of an interface"}},
    {"insert flow priority=1 -> policer=64000", {"policer=RATE,BURST"}},
    {"insert flow priority=1 -> policer=1,2,drop-red,drop-red", {"'drop-red'", "twice"}},
    {"insert flow priority=2147483648 -> drop", {"from -2147483648 to 2147483647"}},
    {"insert flow priority=1 table=15 -> drop", {"'15'", "from 0 to 14"}},
    {"insert flow priority=1 tabel=1 -> drop", {"did you mean 'table'?"}},
    {"insert flow priority=1 hdr.icmp.type=256 -> drop", {"from 0 to 255 for hdr.icmp.type"}},
    {"insert flow priority=1 hdr.icmp.type=8&256 -> drop", {"'256'"}},
    {"insert flow priority=1 local_metadata.dscp=64 -> drop", {"from 0 to 63"}},
    {"insert flow priority=1 hdr.ipv6_base.dscp=1&0x40 -> drop", {"'0x40'", "from 0 to 63"}},
    {"insert flow priority=1 hdr.icmp.type=1 hdr.icmp.type=2 -> drop", {"twice"}},
    {"insert flow priority=1 hdr.ipv4_base.dst_adr=1.2.3.4 -> drop", {"'hdr.ipv4_base.dst_addr'?"}},
    {"insert flow priority=1 hdr.ipv6_base.dst_addr=1.2.3.4 -> drop", {"an IPv6 address"}},
    {"insert flow priority=1 hdr.ipv6_base.dst_addr=::/129 -> drop", {"from 0 to 128"}},
    {"insert flow priority=1 hdr.ipv4_base.dst_addr=1.2.3.4&::1 -> drop", {"an IPv4 address"}},
    {"insert flow priority=1 local_metadata.isIpPacket=1 -> drop", {"true or false"}},
    {"delete flow priority=1 -> drop", {"'->'", "just the key"}},
    // The hardware, the library, what there is to see.
    {"hw", {"auto, manual, run, flow, group"}},
    {"hw flow flow-1 4294967296", {"from 0 to 4294967295"}},
    {"hw count flow-1 1", {"a number of bytes"}},
    {"hw count flow-1 1 2 unit0 unit1", {"'unit1'"}},
    {"counter", {"the handle of an entry"}},
};

TEST(CliMistake, SaysWhatWasReadAndWhatWasExpected) {
  std::string script;
  for (const Mistake& mistake : mistakes) {
    script += mistake.line + "\n";
  }
  const auto lines = simJson(script, 2, {"-k"});
  ASSERT_EQ(lines.size(), mistakes.size());
  for (std::size_t at = 0; at < lines.size(); ++at) {
    EXPECT_EQ(lines[at]["type"], "error");
    EXPECT_EQ(lines[at]["where"], "-:" + std::to_string(at + 1));
    for (const std::string& part : mistakes[at].says) {
      EXPECT_THAT(lines[at]["message"], HasSubstr(part)) << mistakes[at].line;
    }
  }
}

TEST(CliMistake, EndsTheRunUnlessToldToKeepGoing) {
  const TemporaryFile file{"echo one\nbogus\necho two\n"};
  const Finished stopped = sim({}, {file.path()});
  EXPECT_EQ(stopped.status, 2);
  EXPECT_EQ(stopped.out, "one\n");
  EXPECT_THAT(stopped.errors, HasSubstr(file.path() + ":2: error: read 'bogus', expected"));
  const Finished kept = sim({}, {"--keep-going", file.path()});
  EXPECT_EQ(kept.status, 2);
  EXPECT_EQ(kept.out, "one\ntwo\n");
}

TEST(CliMistake, ABatchThatIsNotCommittedIsNotApplied) {
  const auto lines =
      simJson("begin\ninsert flow priority=1 -> drop\ninsert flow priority=2 -> drop\n", 2);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0]["where"], "-:1");
  EXPECT_THAT(lines[0]["message"], HasSubstr("2 writes not applied"));
  // A mistake inside a batch ends the run, and one message is enough.
  EXPECT_EQ(simJson("begin\ninsert flow priority=1 -> drop\nbogus\n", 2).size(), 1U);
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
