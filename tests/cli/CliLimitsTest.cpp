// Surroundings that are short of something, closed, full, or somebody else's.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CliProgram.h"

namespace {

using namespace CliTest;

constexpr bool sanitized =
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#else
    false;
#endif

struct Shortage {
  std::string command;  // of the shell
  int status;
  std::string errors;  // part of them; none for an empty text
  std::string out;     // part of it
  bool withSanitizers = true;
};

const std::string insert = "echo 'insert flow priority=1 -> drop' | ";
const std::vector<Shortage> shortages{
    // Streams.
    {insert + "$SIM > /dev/full", 1, "standard output: No space left", ""},
    {"$SHOW $NAME > /dev/full", 1, "standard output: No space left", ""},
    {"$SHOW $NAME --check > /dev/full", 1, "standard output: No space left", ""},
    {"exec 3>&1; yes help | { $SIM; echo status $? >&3; } | head -c 1 >&2", 0, " ", "status 1"},
    {"$SIM - <&-", 0, "", ""},
    {"$SIM --shm $OTHER - <&- 2>&-", 0, "", ""},
    {"$SHOW $NAME flows 2>&- <&-", 0, "", "flows: 1"},
    // Whoever writes to a closed output writes into no segment.
    {"exec 3>&1; { echo help; i=0; until $SHOW $OTHER trace >/dev/null 2>&1 || [ $i -gt 400 "
     "]; do "
     "i=$((i+1)); sleep 0.05; done; $SHOW $OTHER trace >&3; :; } | "
     "$SIM --shm $OTHER - >&- 2>&-",
     0, "", "trace: "},
    // Limits.
    {"ulimit -n 8; " + insert + "$SIM --shm $OTHER", 1, "Too many open files", "", false},
    {"ulimit -f 8; " + insert + "$SIM --shm $OTHER", 1, "File too large", ""},
    {"f=$(mktemp); ulimit -f 200; yes help | head -99 | $SIM > $f; s=$?; rm $f; exit $s", 1,
     "standard output: File too large", ""},
    {"ulimit -v 150000; " + insert + "$SIM --shm $OTHER", 0, "", "done", false},
    {"ulimit -v 15000; " + insert + "$SIM --shm $OTHER", 1, "emory", "", false},
    // A line without an end. In the foreground it is signalled once, and ends in order.
    {"timeout --foreground -k 30 -s TERM 0.3 $SIM --shm $OTHER - < /dev/zero", 124, "", ""},
    // What is not there, and what is not a switch's.
    {"$SHOW $OTHER", 1, "no 'ostra-sim --shm ostra-limits-other-", ""},
    {"$SHOW $OTHER --check", 1, "", "there are no tables"},
    {"$SHOW $NAME --remove", 1, "is in use by process", ""},
};

// A switch that is running under $NAME, and $OTHER, a name that is free.
class CliLimits : public SharedSwitch {
 protected:
  CliLimits() {
    ::setenv("SIM", OSTRA_SIM_PROGRAM, 1);
    ::setenv("SHOW", OSTRA_SHOW_PROGRAM, 1);
    ::setenv("NAME", name_.c_str(), 1);
    ::setenv("OTHER", other_.c_str(), 1);
  }
  ~CliLimits() override {
    switch_.reset();
    for (const std::string& path : segmentsOf(other_)) {
      ::unlink(path.c_str());
    }
  }

  void startSwitch(const Arguments& arguments = {}) {
    switch_ = start(arguments);
    switch_->play("insert flow priority=1 -> mirror-ingress=a\x1b[31mb\n");
  }
  static Finished shell(const std::string& command) {
    return Process{"/bin/sh", {"-c", command}}.finish();
  }

  const std::string other_ = uniqueName("ostra-limits-other");
  std::unique_ptr<Process> switch_;
};

TEST_F(CliLimits, AShortageIsReportedAndLeavesNothingBehind) {
  startSwitch();
  for (const Shortage& tried : shortages) {
    if (sanitized && !tried.withSanitizers) {
      continue;
    }
    SCOPED_TRACE(tried.command);
    const Finished finished = shell(tried.command);
    EXPECT_EQ(finished.status, tried.status);
    EXPECT_THAT(finished.errors, HasSubstr(tried.errors));
    EXPECT_EQ(finished.errors.empty(), tried.errors.empty()) << finished.errors;
    EXPECT_THAT(finished.out, HasSubstr(tried.out));
    EXPECT_THAT(segmentsOf(other_), IsEmpty());
  }
  switch_->write("show flows\n");
  EXPECT_THAT(switch_->finish().out, HasSubstr("a?[31mb"));
}

TEST_F(CliLimits, AForeignObjectOfItsNameIsLeftAlone) {
  for (const std::string& segment :
       {"ostra." + other_, other_ + ".trace", "vasta." + other_ + ".p4runtime.flowTable.0.entry"}) {
    const std::string path = "/dev/shm/" + segment;
    for (const std::string& make : std::vector<std::string>{"mkfifo ", "seq 9999 > "}) {
      SCOPED_TRACE(make + path);
      ASSERT_EQ(shell(make + path).status, 0);
      const std::string before = shell("ls -l --full-time " + path).out;
      for (const std::string command : {"$SIM --shm $OTHER -", "$SIM --shm $OTHER --discard -",
                                        "$SHOW $OTHER --check", "$SHOW $OTHER trace"}) {
        const Finished finished = shell("timeout 60 " + command + " </dev/null");
        // What a command does not look at does not disturb it.
        EXPECT_TRUE(finished.status == 1 || segment[0] == 'v') << command << finished.out;
        EXPECT_NE(finished.status, 124) << command;
        EXPECT_EQ(shell("ls -l --full-time " + path).out, before) << command;
      }
      ::unlink(path.c_str());
      EXPECT_THAT(segmentsOf(other_), IsEmpty());
    }
  }
}

TEST_F(CliLimits, OneOfSeveralStartedAtOnceAfterAKillComesUp) {
  for (int round = 0; round < 6; ++round) {
    startSwitch({"--discard"});
    switch_->finishBy(SIGKILL);
    const std::string how = round % 2 == 0 ? "--resume" : "--discard";
    const TemporaryFile script{"show entries\n"};
    std::vector<std::unique_ptr<Process>> all;
    for (int number = 0; number < 5; ++number) {
      all.push_back(start({how, script.path(), "-"}));
    }
    // The one that has the name waits for more. The others end by themselves.
    int refused = 0;
    std::string out;
    for (const auto& process : all) {
      const std::string said = process->readLines();
      out += said;
      if (said.empty()) {
        const Finished finished = process->finish();
        EXPECT_EQ(finished.status, 1);
        EXPECT_THAT(finished.errors, HasSubstr("is in use"));
        ++refused;
      }
    }
    EXPECT_EQ(refused, 4);
    EXPECT_THAT(out, HasSubstr(round % 2 == 0 ? "flow entries: 1" : "flow entries: 0"));
  }
}

TEST_F(CliLimits, AnotherUserReadsNothingUnlessHisGroupIsNamedAndTheOwnerTrusted) {
  EXPECT_EQ(shell("$SIM --shm $OTHER --shm-group no-such-group -").status, 2);
  EXPECT_EQ(shell("$SIM --shm-group 0 -").status, 2) << "there is no memory to share";
  if (::geteuid() != 0 || shell("command -v setpriv").status != 0) {
    GTEST_SKIP() << "needs to become another user";
  }
  const std::string asNobody = "setpriv --reuid=65534 --clear-groups --regid=";
  startSwitch();
  const Finished denied = shell(asNobody + "65533 $SHOW $NAME flows");
  EXPECT_EQ(denied.status, 1);
  EXPECT_THAT(denied.errors, HasSubstr("Permission denied"));
  EXPECT_EQ(switch_->finish().status, 0);

  startSwitch({"--shm-group", "65533"});
  EXPECT_THAT(shell(asNobody + "65533 $SHOW $NAME flows").errors, HasSubstr("another user"));
  const Finished shown = shell(asNobody + "65533 $SHOW $NAME --trust-owner");
  EXPECT_EQ(shown.status, 0) << shown.errors;
  EXPECT_THAT(shown.out, HasSubstr("flows: 1"));
  EXPECT_EQ(shell(asNobody + "65533 $SHOW $NAME --check --trust-owner").status, 0);
  EXPECT_EQ(shell(asNobody + "65533 $SHOW $NAME --remove --trust-owner").status, 1);
  EXPECT_THAT(shell(asNobody + "65532 $SHOW $NAME --trust-owner").errors,
              HasSubstr("Permission denied"));
  EXPECT_EQ(switch_->finish().status, 0);
}

TEST_F(CliLimits, ALongScriptShowsItsProgressOnATerminal) {
  std::string script;
  for (int number = 0; number < 300; ++number) {
    script += "insert flow priority=" + std::to_string(number) + " -> drop\n";
  }
  for (int number = 0; number < 20000; ++number) {
    script += "resync\n";
  }
  const TemporaryFile file{script};
  Process process{
      Process::OnTerminal{}, "/bin/sh", {"-c", "exec $SIM " + file.path() + " > /dev/null"}};
  EXPECT_THAT(process.readUntil("%"), HasSubstr("\r\x1b[K" + file.path() + ": line "));
  EXPECT_EQ(process.finishBy(SIGTERM).status, -SIGTERM);
}

}  // namespace
