// ostra-p4rt as a process: its options, its console and its end.
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

using CliTest::Arguments;
using CliTest::Finished;
using CliTest::Json;
using CliTest::Process;

Finished finished(Arguments arguments) {
  arguments.insert(arguments.begin(), {"--listen", "127.0.0.1:0"});
  return Process{OSTRA_P4RT_PROGRAM, arguments}.finish();
}

TEST(ProgramTest, TheConsoleIsTheSimulatorsButForTheControllersEntries) {
  Program program{{"--p4info", OSTRA_P4INFO}};
  EXPECT_THAT(program.greeting.at("p4info"), HasSubstr("ostra.p4info.txt"));
  Controller controller{program};
  EXPECT_EQ(controller.claimAndHear(), "primary 1");
  EXPECT_EQ(codeOf(controller.write(flows(Update::INSERT, 1, 1))), Code::failedPrecondition_)
      << "a P4Info that is offered is not set";
  ASSERT_EQ(codeOf(controller.set(pipelineRequest())), Code::ok_);
  ASSERT_EQ(codeOf(controller.write({flow(Update::INSERT, 1, 2)})), Code::ok_);
  EXPECT_THAT(program.type("show flows"),
              AllOf(HasSubstr("\"ipDst\":{\"value\":\"10.0.0.1\""), HasSubstr("Ethernet2")));
  EXPECT_THAT(program.type("insert group 3 members="), HasSubstr("P4Runtime controllers"));
  EXPECT_THAT(program.type("begin"), HasSubstr("P4Runtime controllers"));
  EXPECT_THAT(program.type("bogus"), HasSubstr("expected a command"));

  // An answer of the hardware is shown on the console, and ends the controller's Write.
  program.automaticIs(false);
  auto written = controller.writeLater({flow(Update::INSERT, 2, 3)});
  program.awaitEntries(2);
  EXPECT_THAT(program.type("show pending"), HasSubstr("\"handle\":2,\"op\":\"insert\""));
  EXPECT_THAT(program.type("explain flow-2"), HasSubstr("\"pending\":true"));
  EXPECT_THAT(program.type("audit"), HasSubstr("\"faults\":0,\"rows\":2"));
  EXPECT_THAT(program.type("hw run"), HasSubstr("\"type\":\"report\""));
  EXPECT_EQ(codeOf(written.get()), Code::ok_);

  // The end of the input does not end the server; a signal does.
  program.process.closeInput();
  EXPECT_EQ(controller.entries().size(), 2U);
  program.process.kill(SIGTERM);
  EXPECT_EQ(program.process.finish().status, 0);
}

// A server that is asked to end while a Write waits for the hardware.
struct Ending {
  explicit Ending(int signal) {
    controller.takeOver();
    program.automaticIs(false);
    written = controller.writeLater({flow(Update::INSERT, 1)});
    program.awaitEntries(1);
    program.process.kill(signal);
    // A Write that arrives before the signal waits, and runs into its deadline.
    while (codeOf(controller.write(flows(Update::INSERT, 2, 1), milliseconds{100})) !=
           Code::unavailable_) {
    }
  }

  Program program{{"--write-timeout", "60000"}};
  Controller controller{program};
  std::future<grpc::Status> written;
};

TEST(ProgramTest, EndsByQuitAndBySignalsAndFinishesTheWriteUnderWay) {
  EXPECT_EQ(Program{}.process.finish("quit\n").status, 0);
  Ending ending{SIGTERM};
  ending.program.process.write("hw run\n");
  EXPECT_EQ(codeOf(ending.written.get()), Code::ok_);
  EXPECT_EQ(ending.controller.standing(), "end 14");
  EXPECT_EQ(ending.program.process.finish().status, 0);
}

TEST(ProgramTest, ASecondSignalEndsItAtOnce) {
  Ending ending{SIGINT};
  ending.program.process.kill(SIGTERM);
  EXPECT_EQ(ending.program.process.finish().status, -SIGTERM);
  EXPECT_EQ(codeOf(ending.written.get()), Code::unavailable_);
}

TEST(ProgramTest, GoesOnWithWhatIsItsOwnAndLosesNothingSilently) {
  const std::string name = uniqueName("p4rt-program");
  {
    Program killed{{"--no-console", "--shm", name}};
    Controller controller{killed, {9}};
    controller.takeOver();
    ASSERT_EQ(codeOf(controller.write(flows(Update::INSERT, 1, 3))), Code::ok_);
    killed.process.kill(SIGKILL);
    killed.process.finish();
  }
  const Finished refused = finished({"--shm", name});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors, AllOf(HasSubstr("--resume"), HasSubstr("--discard")));
  // A server that fails to start leaves everything as it was.
  EXPECT_EQ(finished({"--shm", name, "--resume", "--config", OSTRA_P4INFO}).status, 2);
  {
    Program resumed{{"--no-console", "--shm", name, "--resume"}};
    Controller controller{resumed};
    EXPECT_EQ(controller.claimAndHear(), "primary 1") << "election ids begin anew";
    EXPECT_EQ(controller.entries().size(), 3U);
    resumed.process.kill(SIGTERM);
    EXPECT_EQ(resumed.process.finish().status, 0);
  }
  Process other{OSTRA_SIM_PROGRAM,
                {"--shm", name, "--json"}};  // the shared memory is gone, so the name is free
  other.write("insert flow priority=1 -> drop\necho ready\n");
  other.readUntil("ready");
  other.kill(SIGKILL);
  other.finish();
  EXPECT_THAT(finished({"--shm", name, "--resume"}).errors, HasSubstr("no P4Runtime server's"));
  EXPECT_THAT(CliTest::sim("show entries\n", {"--shm", name, "--resume"}).out, HasSubstr("1"));
}

TEST(ProgramTest, SaysWhatIsWrongWithItsOptions) {
  struct Case {
    Arguments arguments;
    int status;
    std::string error;
  };
  const CliTest::TemporaryFile notP4Info{"tables { preamble { id: 5 } }"};
  const CliTest::TemporaryFile notText{"port 1 Ethernet1"};
  const Program other;
  for (const Case& tried :
       std::vector<Case>{{{"--listn", "x"}, 2, "did you mean '--listen'"},
                         {{"--listen", "0.0.0.0:0"}, 2, "or --insecure"},
                         {{"--listen", "[::]:0"}, 2, "or --insecure"},
                         {{"--listen", "127.0.0.1"}, 2, "HOST:PORT"},
                         {{"--listen", "127.0.0.1:99999"}, 2, "65535"},
                         {{"--listen", other.address()}, 1, "Address already in use"},
                         {{"--tls-cert", "x"}, 2, "expected both"},
                         {{"--client-ca", "x"}, 2, "--tls-key"},
                         {{"--tls-cert", "/nowhere", "--tls-key", "/nowhere"}, 2, "No such file"},
                         {{"--tls-cert", OSTRA_P4INFO, "--tls-key", OSTRA_P4INFO}, 1, "not usable"},
                         {{"--p4info", "/nowhere"}, 2, "No such file"},
                         {{"--p4info", notText.path()}, 2, ":1:"},
                         {{"--p4info", notP4Info.path()}, 2, notP4Info.path()},
                         {{"--config", notP4Info.path()}, 2, "expected a command"},
                         {{"--device-id=x"}, 2, "--device-id"},
                         {{"--write-timeout", "99999999999"}, 2, "--write-timeout"},
                         {{"--resume"}, 2, "--shm NAME"},
                         {{"--shm", "x", "--resume", "--discard"}, 2, "one of them"},
                         {{"surplus"}, 2, "expected an option"}}) {
    const Finished run = finished(tried.arguments);
    EXPECT_EQ(run.status, tried.status) << run.errors;
    EXPECT_THAT(run.errors, HasSubstr(tried.error));
    EXPECT_EQ(run.out, "");
  }
  EXPECT_THAT(finished({"--help"}).out, HasSubstr("Usage: ostra-p4rt"));
}

}  // namespace
}  // namespace P4rtTest
