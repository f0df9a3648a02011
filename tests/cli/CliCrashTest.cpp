// An ostra-sim that is killed at any moment while a controller writes, and goes on where it was.
// What it shows then is compared with an ostra-sim that starts with the rows that were asked for.
//
// OSTRA_CRASH_ROUNDS and OSTRA_CRASH_SEED in the environment make it longer and other.
#include "CliProgram.h"

namespace {

using namespace CliTest;

// One change that was asked for.
struct Step {
  std::string verb;   // none for a port or an encapsulation
  std::string key;    // "member 3"
  std::string words;  // behind the key

  [[nodiscard]] bool isWrite() const { return !verb.empty(); }
};

// What is stored under a key.
struct Row {
  std::string words;
  std::uint64_t handle = 0;  // 0: it was not told yet
};

// What a switch shows, but for the handles of its rows.
struct Seen {
  std::multiset<std::string> lines;
  std::map<std::string, std::uint64_t> handles;
};

class CliCrash : public SharedSwitch {
 protected:
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  std::string upTo(unsigned limit) { return std::to_string(1 + below(limit)); }

  // Texts of commands, which become steps that are not answered yet.

  std::string step(const std::string& verb, const std::string& key, const std::string& words) {
    steps_.push_back({.verb = verb, .key = key, .words = words});
    return verb + " " + key + (verb == "delete" ? "" : words) + "\n";
  }
  std::string anyVerb() { return std::array{"insert", "modify", "delete"}.at(below(3)); }

  // A key of the last ones says nothing of IP packets; it is refused, and its row stays.
  static std::string flowKey(unsigned id) {
    const std::string number = std::to_string(id);
    return "flow table=" + std::to_string(id % 3) + " priority=" + number +
           (id < 110 ? " hdr.ethernet.ether_type=0x0800 hdr.ipv4_base.dst_addr=10.0.0." + number
                     : " local_metadata.dscp=46");
  }
  std::string flow() {
    std::string actions = " -> traffic-class=" + upTo(7);
    if (below(3) == 0) {
      actions += " group=" + upTo(4);
    } else if (below(2) == 0) {
      actions += " vrf=" + upTo(4);
    }
    return step(anyVerb(), flowKey(below(120)), actions);
  }
  std::string member(const char* verb, unsigned id) {
    const std::string port = id <= 3 ? std::to_string(id) : upTo(3);  // so that every port shows
    return step(verb, "member " + std::to_string(id),
                " port=" + port + " encap=9 dst-mac=02:00:00:00:00:0" + upTo(9));
  }
  std::string group() {
    std::string list = " members=" + upTo(members);
    for (unsigned more = below(3); more > 0; --more) {
      list += "," + upTo(members);
    }
    return step(anyVerb(), "group " + upTo(4), list);
  }
  std::string port(unsigned id) {
    return step("", "port " + std::to_string(id), " Ethernet" + upTo(40));
  }
  std::string encap() { return step("", "encap 9", " src=192.0.2." + upTo(200) + " dst=1.2.3.4"); }

  std::string write() {
    const unsigned which = below(20);
    return which < 15 ? flow() : which < 18 ? group() : member("modify", 1 + below(members));
  }
  std::string command() {
    const unsigned kind = below(12);
    if (kind < 11) {
      const std::string text = kind == 0 ? port(1 + below(3)) : kind == 1 ? encap() : write();
      return text + echo();
    }
    std::string text = "begin\n";
    for (unsigned count = 2 + below(6); count > 0; --count) {
      text += write();
    }
    return text + "commit\n" + echo();
  }
  // Says that so many steps have been made.
  [[nodiscard]] std::string echo() const { return "echo " + std::to_string(steps_.size()) + "\n"; }
  std::string setUp() {
    std::string text = port(1) + port(2) + port(3) + encap();
    for (unsigned id = 1; id <= members; ++id) {
      text += member("insert", id);
    }
    return text + echo();
  }

  // One with JSON output, that checks itself now and then.
  std::unique_ptr<Process> startJson(const std::string& leftover) {
    return start(below(3) == 0 ? Arguments{"--json", leftover, "--verify"}
                               : Arguments{"--json", leftover});
  }

  // Whether the service takes it.
  [[nodiscard]] bool fits(const Step& step) const {
    return !step.isWrite() || rows_.contains(step.key) == (step.verb != "insert");
  }
  void make(const Step& step, std::uint64_t handle = 0) {
    if (!step.isWrite()) {
      surroundings_[step.key] = step.words;
    } else if (fits(step) && step.verb == "delete") {
      rows_.erase(step.key);
    } else if (fits(step)) {
      Row& row = rows_[step.key];
      row.words = step.words;
      row.handle = step.verb == "insert" ? handle : row.handle;
    }
  }

  // Makes the steps that the output answers, and compares each result with what it must be.
  void takeAnswers(const std::string& output) {
    std::size_t next = 0;
    const std::size_t whole = output.rfind('\n') + 1;  // a line that was cut is no answer
    for (const std::string& line : linesOf(output.substr(0, whole))) {
      const Json object = Json::parse(line);
      if (object["type"] == "echo") {
        const std::size_t made = std::stoul(object["text"].get<std::string>());
        while (next < made) {
          ASSERT_FALSE(steps_[next].isWrite()) << "no result for " << steps_[next].key;
          make(steps_[next++]);
        }
      } else if (object["type"] == "result" && object["op"] != "announce") {
        while (!steps_[next].isWrite()) {
          make(steps_[next++]);
        }
        takeResult(steps_[next++], object);
      }
    }
    steps_.erase(steps_.begin(), steps_.begin() + static_cast<std::ptrdiff_t>(next));
  }
  void takeResult(const Step& step, const Json& result) {
    EXPECT_EQ(result["state"] != "rejected", fits(step)) << step.key << ": " << result;
    const auto handle = result.value("handle", std::uint64_t{0});
    if (fits(step) && step.verb == "insert") {
      EXPECT_GT(handle, lastHandle_) << "a handle was given out twice";
      lastHandle_ = handle;
    } else if (fits(step)) {
      EXPECT_EQ(handle, rows_[step.key].handle) << step.key;
    }
    make(step, handle);
  }

  // The rows as they stand in shared memory, and what the switch of that name has made of them.
  static Seen observe(Process& process, const std::string& name) {
    process.write("show flows\nshow groups\nshow vrfs\necho seen\n");
    const std::string shown = process.readUntil("\"seen\"}\n");
    Seen seen;
    std::string topic;
    bool isTitle = false;
    for (const std::string& line : linesOf(show({name, "flows", "members", "groups"}).out)) {
      if (!line.starts_with(' ')) {
        topic = line.substr(0, line.find(':') - 1);
        isTitle = true;
      } else if (!std::exchange(isTitle, false)) {
        std::istringstream stream{line};
        std::vector<std::string> words{std::istream_iterator<std::string>{stream}, {}};
        const bool isFlow = topic == "flow";
        const std::string& id = words.at(isFlow ? 2 : 0);
        const std::string key =
            isFlow ? flowKey(static_cast<unsigned>(std::stoul(id))) : topic + " " + id;
        seen.handles[key] = std::stoull(std::exchange(words.at(1), ""));
        seen.lines.insert(topic + testing::PrintToString(words));
      }
    }
    for (const std::string& line : linesOf(shown)) {
      const Json object = Json::parse(line);
      for (const std::string kind : {"flows", "groups", "vrfs"}) {
        for (Json row : object.value(kind, Json::array())) {
          if (kind == "flows") {
            const auto handle = seen.handles[flowKey(row["priority"])];
            EXPECT_EQ(row["entryId"], handle);
            EXPECT_EQ(row["name"], "flow-" + std::to_string(handle));
            row.erase("entryId");
            row.erase("name");
          }
          row.erase("changeCount");
          seen.lines.insert(kind + row.dump());
        }
      }
    }
    return seen;
  }
  // What a switch shows that starts with the rows that there must be.
  [[nodiscard]] std::multiset<std::string> expected() const {
    std::string text = "stop\n";
    for (const auto& [key, words] : surroundings_) {
      text.append(key).append(words).append("\n");
    }
    for (const auto& [key, row] : rows_) {
      text.append("insert ").append(key).append(row.words).append("\n");
    }
    const std::string name = name_ + "-reference";
    Process reference{OSTRA_SIM_PROGRAM, {"--json", "--shm", name}};
    reference.write(text + "start\nresync\n");  // groups are ready when flows hear of them again
    auto lines = observe(reference, name).lines;
    reference.finish();
    return lines;
  }

  // Everything answered is there, and of the rest a first part.
  void compare(Process& process) {
    const Seen seen = observe(process, name_);
    const auto isSeen = [&] {
      const bool sameKeys =
          std::equal(rows_.begin(), rows_.end(), seen.handles.begin(), seen.handles.end(),
                     [](const auto& row, const auto& shown) { return row.first == shown.first; });
      return sameKeys && seen.lines == expected();
    };
    std::size_t made = 0;
    while (!isSeen() && made < steps_.size()) {
      make(steps_[made++]);
    }
    ASSERT_THAT(seen.lines, testing::ContainerEq(expected())) << made << " steps unanswered";
    steps_.clear();
    const std::uint64_t told = lastHandle_;
    for (auto& [key, row] : rows_) {
      const std::uint64_t handle = seen.handles.at(key);
      if (row.handle == 0) {
        EXPECT_GT(handle, told) << key;
        row.handle = handle;
      }
      EXPECT_EQ(handle, row.handle) << key;
      lastHandle_ = std::max(lastHandle_, handle);
    }
  }

  void fresh() {
    rows_.clear();
    steps_.clear();
    lastHandle_ = 0;
    const auto process = startJson("--discard");
    process->write(setUp());
    takeAnswers(process->readUntil("\"" + std::to_string(steps_.size()) + "\"}\n"));
    takeAnswers(process->finishBy(SIGKILL).out);
  }

  void round() {
    const auto process = startJson("--resume");
    if (below(4) == 0) {  // dies while it resumes, perhaps
      std::this_thread::sleep_for(std::chrono::microseconds{below(patience)});
    } else {
      ASSERT_NO_FATAL_FAILURE(compare(*process));
      std::string text;
      for (unsigned count = 1 + below(150); count > 0; --count) {
        text += command();
      }
      process->write(text);
      std::this_thread::sleep_for(std::chrono::microseconds{below(patience)});
    }
    takeAnswers(process->finishBy(SIGKILL).out);
  }

  static constexpr unsigned members = 6;
  static constexpr unsigned patience = 12000;  // microseconds

  std::mt19937 random_{static_cast<unsigned>(setting("OSTRA_CRASH_SEED", 1))};
  std::map<std::string, Row> rows_;
  std::map<std::string, std::string> surroundings_;  // ports and the encapsulation
  std::vector<Step> steps_;                          // that are not known to have been made
  std::uint64_t lastHandle_ = 0;
};

TEST_F(CliCrash, AnsweredWritesAreKeptAndOthersAreWholeOrAbsent) {
  const unsigned long rounds = setting("OSTRA_CRASH_ROUNDS", 25);
  for (unsigned long number = 0; number < rounds && !HasFailure(); ++number) {
    SCOPED_TRACE("round " + std::to_string(number));
    if (number % 50 == 0) {
      ASSERT_NO_FATAL_FAILURE(fresh());
    }
    ASSERT_NO_FATAL_FAILURE(round());
  }
}

TEST_F(CliCrash, WhatAKilledSwitchLeftIsResumedOrDiscardedOnlyOnRequest) {
  const auto killed = start();
  killed->play("port 1 Ethernet1\ninsert flow priority=1 -> drop\n");
  // One name, one process.
  EXPECT_THAT(sim("", {"--shm", name_, "--discard"}).errors,
              HasSubstr("is in use by process " + std::to_string(killed->id())));
  killed->finishBy(SIGKILL);

  const Finished refused = sim("", {"--shm", name_});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors,
              AllOf(HasSubstr("process"), HasSubstr("--resume"), HasSubstr("--discard")));
  // One that ends by itself leaves nothing to refuse.
  EXPECT_EQ(sim("", {"--shm", name_, "--resume"}).status, 0);
  EXPECT_EQ(sim("", {"--shm", name_}).status, 0);
  EXPECT_EQ(sim("", {"--resume"}).status, 2);
  EXPECT_EQ(sim("", {"--shm", name_, "--resume", "--discard"}).status, 2);
}

}  // namespace
