// ostra-show beside an ostra-sim that starts, stops and is killed, and on memory that is damaged.

#include "CliProgram.h"
#include "tests/Tampering.h"

namespace {

using namespace CliTest;

const std::string script =
    "port 1 Ethernet1\n"
    "encap 9 src=192.0.2.1 dst=198.51.100.7\n"
    "insert member 5 port=1 encap=9 dst-mac=02:00:00:00:00:05\n"
    "insert group 3 members=5 weights=7\n"
    "insert flow table=2 priority=100 hdr.ethernet.ether_type=0x0800 -> group=3 vrf=5\n"
    "insert flow priority=10 local_metadata.dscp=46 -> traffic-class=7\n"
    "echo ready\n";

class CliShow : public SharedSwitch {
 protected:
  std::unique_ptr<Process> startSim() const {
    auto process = start({"--clock", "steps", "--discard"});
    process->write(script);
    process->readUntil("ready\n");
    return process;
  }
};

TEST_F(CliShow, PrintsTheTablesAndTheTraceOfARunningOne) {
  const auto process = startSim();
  const Finished all = show({name_});
  EXPECT_EQ(all.status, 0) << all.errors;
  EXPECT_THAT(all.out, HasSubstr("process " + std::to_string(process->id()) + "\n"));
  for (const char* const part :
       {"flows: 2\n  table  entry  priority  match",
        "      2      3       100  hdr.ethernet.ether_type=0x800", "vrf=5 group=3\n",
        "  local_metadata.dscp=46  ", "members: 1\n",
        "   5      1     1      9  02:00:00:00:00:05  -\n", "groups: 1\n",
        "   3      2  5        7\n", "status: 2\n", "trace: 50\n", " Ostra/OstraSm:"}) {
    EXPECT_THAT(all.out, HasSubstr(part));
  }

  const Finished some = show({name_, "groups", "groups"});
  EXPECT_THAT(some.out, HasSubstr("groups: 1\n"));
  EXPECT_THAT(some.out, Not(HasSubstr("flows:")));
  EXPECT_EQ(process->finish("quit\n").status, 0);

  const Finished after = show({name_});
  EXPECT_EQ(after.status, 1);
  EXPECT_THAT(after.errors, HasSubstr("no 'ostra-sim --shm " + name_ + "' is running"));
}

TEST_F(CliShow, FollowsThroughStartsStopsAndKills) {
  Process viewer{OSTRA_SHOW_PROGRAM, {name_, "--follow", "flows", "members", "trace"}};
  viewer.readUntil("# waiting for '" + name_ + "'\n");
  auto process = startSim();
  std::string seen;  // in an order that depends on when the viewer looks
  for (const std::string text : {"flows + table 2, entry 3, priority 100",
                                 "members + id 5, entry 1, port 1, encap 9", "flow-3"}) {
    if (seen.find(text) == std::string::npos) {
      seen += viewer.readUntil(text);
    }
  }
  EXPECT_THAT(seen, HasSubstr("# attached to '" + name_ + "', process " +
                              std::to_string(process->id()) + "\n"));
  process->write("delete flow table=2 priority=100 hdr.ethernet.ether_type=0x0800\n");
  viewer.readUntil("flows - table 2, entry 3, priority 100");

  process->kill(SIGKILL);
  viewer.readUntil("# process " + std::to_string(process->id()) + " is gone\n");
  viewer.readUntil("# waiting for");
  process = startSim();
  viewer.readUntil("# attached to '" + name_ + "', process " + std::to_string(process->id()));
  viewer.readUntil("flows + table 2, entry 3, priority 100");

  EXPECT_EQ(process->finish("quit\n").status, 0);
  viewer.readUntil("is gone\n");
  viewer.closeOutput();
  process = startSim();  // something to say, to nobody
  EXPECT_EQ(viewer.finish().status, 0);
  EXPECT_EQ(process->finish("quit\n").status, 0);
}

TEST_F(CliShow, SurvivesKillsAtAnyMoment) {
  std::string inserts;
  for (int number = 0; number < 5000; ++number) {
    inserts += "insert flow priority=" + std::to_string(number) + " -> drop\n";
  }
  const TemporaryFile file{inserts};
  Process viewer{OSTRA_SHOW_PROGRAM, {name_, "--follow", "flows", "status", "trace"}};
  std::mt19937 random{1};
  for (int round = 0; round < 20; ++round) {
    const auto victim = start({"--discard", file.path(), "-"});
    std::this_thread::sleep_for(std::chrono::microseconds{random() % 40000});
    const Finished once = show({name_, "flows"});
    EXPECT_TRUE(once.status == 0 || once.status == 1) << once.status << once.errors;
    victim->finishBy(SIGKILL);
    EXPECT_EQ(show({name_, "flows"}).errors.find("corrupt"), std::string::npos);
  }
  const auto process = startSim();
  const std::string id = std::to_string(process->id());
  viewer.readUntil("process " + id + "\n");
  viewer.readUntil("flows + table 2, entry 3, priority 100");
  EXPECT_EQ(process->finish("quit\n").status, 0);
  viewer.readUntil("# process " + id + " is gone\n");
}

TEST_F(CliShow, SaysWhatIsDamagedAndRemovesIt) {
  {
    const auto process = startSim();
    EXPECT_EQ(show({name_, "--check"}).status, 0);
    EXPECT_EQ(show({name_, "--remove"}).status, 1) << "it is in use";
    process->finishBy(SIGKILL);
  }
  // Rows that were never there do not match either.
  TestSupport::Tampering rows{
      Korm::SegmentName{"/vasta." + name_ + ".p4runtime.flowTable.2.entry#rows"}};
  for (std::size_t word = 0; word < 512; ++word) {
    rows.wordIs(word, 0);
  }

  const Finished shown = show({name_, "flows"});
  EXPECT_EQ(shown.status, 1);
  EXPECT_THAT(shown.out, HasSubstr("the header of the table says 1"));
  EXPECT_EQ(show({name_, "members"}).status, 0);
  const Finished checked = show({name_, "--check"});
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.out, HasSubstr("p4runtime/flowTable/2/entry: it has 0 intact rows"));

  EXPECT_EQ(show({name_, "--remove"}).status, 0);
  EXPECT_THAT(show({name_}).errors, HasSubstr("is running"));
  EXPECT_EQ(sim("", {"--shm", name_}).status, 0);
}

}  // namespace
