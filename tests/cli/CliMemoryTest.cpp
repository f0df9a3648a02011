// Memory that runs out: every allocation of a run fails in turn, by itself or with all after it.
// What a program has said then is the start of what it says otherwise, and it ends in order, with
// an error. Under --resume what had been answered is there for the next one.
//
// OSTRA_MEMORY_STRIDE in the environment is the distance from one allocation that fails to the
// next.

#include "CliProgram.h"

namespace {

using namespace CliTest;

// Commands, a batch being one, with every kind of work in them.
const std::vector<std::string> script{
    "port 1 Ethernet1\n",
    "port 2 Ethernet2\n",
    "encap 9 src=192.0.2.1 dst=198.51.100.7\n",
    "insert member 5 port=1 encap=9 dst-mac=02:00:00:00:00:05\n",
    "insert member 6 port=2 encap=9\n",
    "insert group 3 members=5,6\n",
    "insert flow priority=100 hdr.ethernet.ether_type=0x0800 hdr.ipv4_base.dst_addr=10.1.0.0/16 "
    "-> group=3 vrf=5\n",
    "insert flow priority=10 local_metadata.dscp=46 -> traffic-class=7\n",
    "insert flow table=2 priority=5 ingress_port=2 -> vrf=7 set-dscp=3\n",
    "begin\ninsert flow priority=1 hdr.ethernet.ether_type=0x0806 -> vrf=5\n"
    "modify flow table=2 priority=5 ingress_port=2 -> vrf=5\ndelete flow priority=1 "
    "hdr.ethernet.ether_type=0x0806\n"
    "modify group 3 members=6\ninsert flow priority=2 -> output=1 vrf=6\ncommit\n",
    "encap 9 src=192.0.2.1 dst=198.51.100.8\n",
    "hw manual\nhw capacity flows 5\n",
    "insert flow priority=3 -> vrf=8\n",
    "insert flow priority=4 -> vrf=8\n",
    "show pending\nhw run\nhw flow flow-4 6\nhw group 4294967301 4\n",
    "modify flow priority=3 -> vrf=9\n",
    "delete flow priority=4\n",
    "hw auto\nexplain flow priority=6 -> vrf=5 group=3\nexplain entry 4\naudit\n",
    "corvex flow flow-99\nhw count flow-4 1000 64000\ncounter 4\n",
    "no encap 9\nencap 9 src=192.0.2.1 dst=198.51.100.7\nresync\nstop\n",
    "insert flow priority=8 -> drop\n",
    "start\nhw unpublish\n",
    "delete flow priority=8\n",
    "hw publish\nno port 2\nport 2 Ethernet3\n",
    "show flows\nshow groups\nshow vrfs\nshow entries\nshow hw\nbogus\n",
};

bool isWrite(const std::string& line) {
  return line.starts_with("insert") || line.starts_with("modify") || line.starts_with("delete");
}

// Which allocation of the programs that are started from now on fails; none for an empty text.
void failingIs(const std::string& plan) { ::setenv("OSTRA_FAIL_NEW", plan.c_str(), 1); }

class CliMemory : public SharedSwitch {
 protected:
  ~CliMemory() override { failingIs(""); }

  Finished play(const std::string& text, Arguments arguments) const {
    arguments.insert(arguments.end(), {"--clock", "steps", "-k", "--shm", name_});
    const TemporaryFile input{text};
    return Process{OSTRA_FAILING_SIM, arguments, input.path()}.finish();
  }

  // Runs the program with each of its allocations failing, `stride` apart, and all after it if
  // `forGood`. Compares what comes of each, and calls then(finished) after each that ended early.
  static void exhaust(unsigned long stride, bool forGood, const std::function<Finished()>& run,
                      const std::function<void(const Finished&)>& then) {
    failingIs("0");
    const Finished whole = run();
    const unsigned long count = takeCount(whole.errors).second;
    ASSERT_GT(count, 100U) << whole.errors;
    for (unsigned long number = 1; number <= count; number += stride) {
      SCOPED_TRACE("allocation " + std::to_string(number) + (forGood ? "+" : ""));
      failingIs(std::to_string(number) + (forGood ? "+" : ""));
      const Finished finished = run();
      failingIs("");
      EXPECT_EQ(whole.out.substr(0, finished.out.size()), finished.out);
      if (finished.status == whole.status) {
        EXPECT_EQ(finished.out, whole.out);  // it could be done without
        continue;
      }
      ASSERT_EQ(finished.status, 1) << finished.errors;
      EXPECT_THAT(takeCount(finished.errors).first, EndsWith(": out of memory\n"));
      ASSERT_NO_FATAL_FAILURE(then(finished));
      if (HasFailure()) {
        break;
      }
    }
  }
  // What the program has said, and how many allocations there were.
  static std::pair<std::string, unsigned long> takeCount(const std::string& errors) {
    static const std::string word = "allocations: ";
    const std::size_t at = errors.rfind(word);
    if (at == std::string::npos) {
      return {errors, 0};
    }
    return {errors.substr(0, at), std::stoul(errors.substr(at + word.size()))};
  }

  static unsigned long strideOr(unsigned long otherwise) {
    return setting("OSTRA_MEMORY_STRIDE", otherwise);
  }

  // The rows that a process has or has left, which is named in the first line.
  [[nodiscard]] std::string rows() const {
    const std::string text = show({name_, "flows", "members", "groups"}).out;
    return text.substr(text.find('\n') + 1);
  }

  // The rows after each write of the script.
  std::vector<std::string> rowsByWrites() {
    const auto process = start({"--json"});
    process->play("");
    std::vector<std::string> states{rows()};
    for (const std::string& command : script) {
      for (const std::string& line : linesOf(command)) {
        if (line == "begin" || line == "commit" || line == "bogus") {
          continue;
        }
        process->play(line + "\n");
        if (isWrite(line)) {
          states.push_back(rows());
        }
      }
    }
    process->finish();
    return states;
  }

  // A switch that goes on with what is there finds no fault in it, and shows these rows.
  std::string rowsResumed() {
    const auto process = start({"--json", "--verify", "--resume"});
    EXPECT_THAT(process->play("audit\n"), HasSubstr("\"faults\":0,"));
    std::string shown = rows();
    EXPECT_EQ(process->finish().status, 0);
    return shown;
  }
};

std::string whole() {
  std::string text;
  for (const std::string& command : script) {
    text += command;
  }
  return text;
}

TEST_F(CliMemory, AnyAllocationThatFailsEndsTheRunInOrder) {
  const auto nothingIsLeft = [this](const Finished&) { EXPECT_THAT(segmentsOf(name_), IsEmpty()); };
  const auto json = [this] { return play(whole(), {"--json"}); };
  const auto text = [this] { return play(whole(), {"--trace", "9", "--verify"}); };
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(71), false, json, nothingIsLeft));
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(83), true, json, nothingIsLeft));
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(211), true, text, nothingIsLeft));
}

TEST_F(CliMemory, AnsweredWritesSurviveAFailedAllocation) {
  const std::vector<std::string> states = rowsByWrites();
  std::string text;
  std::vector<std::size_t> writes{0};  // before each command
  for (const std::string& command : script) {
    text += command + "echo " + std::to_string(writes.size()) + "\n";
    const auto lines = linesOf(command);
    writes.push_back(writes.back() +
                     static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), isWrite)));
  }
  writes.push_back(writes.back());
  const auto run = [&] { return play(text, {"--json", "--resume"}); };
  exhaust(strideOr(197), strideOr(2) % 2 == 0, run, [&](const Finished& finished) {
    const std::size_t echo = finished.out.rfind("\"echo\",\"text\":\"");
    const std::size_t answered =
        echo == std::string::npos ? 0 : std::stoul(finished.out.substr(echo + 15));
    const std::string seen = rowsResumed();
    std::size_t at = writes[answered];
    while (at < writes[answered + 1] && states[at] != seen) {
      ++at;
    }
    EXPECT_EQ(seen, states[at]);
  });
}

TEST_F(CliMemory, AFailureWhileResumingOrShowingLosesNothing) {
  const auto leave = [this] {
    const auto process = start({"--json", "--discard"});
    process->play(whole().substr(0, whole().find("corvex")));
    process->finishBy(SIGKILL);
  };
  leave();
  const std::string left = rows();
  const auto same = [&](const Finished&) { EXPECT_EQ(rows(), left); };
  const auto look = [this] {
    return Process{OSTRA_FAILING_SHOW, {name_, "flows", "groups"}}.finish();
  };
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(53), false, look, same));
  const auto resume = [&] {
    if (segmentsOf(name_).empty()) {  // one that had enough has ended by itself
      leave();
    }
    return play("audit\n", {"--resume"});
  };
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(97), true, resume, same));
  ASSERT_NO_FATAL_FAILURE(exhaust(strideOr(89), false, resume, same));
  if (segmentsOf(name_).empty()) {
    leave();
  }
  EXPECT_EQ(rowsResumed(), left);
}

}  // namespace
