// An ostra-sim that is killed at any moment while a controller writes, and goes on where it was.
//
// OSTRA_CRASH_ROUNDS and OSTRA_CRASH_SEED in the environment make it longer and other.

#include "CliProgram.h"
#include "CrashModel.h"
#include "tests/UniqueName.h"

namespace {

using CliTest::Json;
using CliTest::Model;
using CliTest::Process;
using CliTest::Step;

unsigned long setting(const char* name, unsigned long otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : std::strtoul(value, nullptr, 10);
}

class CliCrash : public testing::Test {
 protected:
  ~CliCrash() override { (void)CliTest::sim("", {"--shm", name_, "--discard"}); }

  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  // Texts of commands, which become steps that are not answered yet.

  std::string flow() {
    const unsigned id = below(120);
    Step step{.kind = static_cast<Step::Kind>(below(3)), .key = "flow " + std::to_string(id)};
    std::string text = word(step.kind) + " flow table=" + std::to_string(id % 3) +
                       " priority=" + std::to_string(id) +
                       " hdr.ethernet.ether_type=0x0800 hdr.ipv4_base.dst_addr=10.0.0." +
                       std::to_string(id);
    // A key that says nothing of IP packets is refused, and its row stays.
    if (id >= 110) {
      text = word(step.kind) + " flow table=" + std::to_string(id % 3) +
             " priority=" + std::to_string(id) + " local_metadata.dscp=46";
      step.row.refused = true;
    }
    step.row.trafficClass = below(8);
    std::string actions = " -> traffic-class=" + std::to_string(step.row.trafficClass);
    if (below(3) == 0) {
      step.row.group = 1 + below(4);
      actions += " group=" + std::to_string(step.row.group);
    } else if (below(2) == 0) {
      step.row.vrf = 1 + below(4);
      actions += " vrf=" + std::to_string(step.row.vrf);
    }
    steps_.push_back(step);
    return text + (step.kind == Step::Kind::delete_ ? "\n" : actions + "\n");
  }

  std::string member(Step::Kind kind, unsigned id) {
    Step step{.kind = kind, .key = "member " + std::to_string(id)};
    step.row.port = id <= 3 ? id : 1 + below(3);  // so that every port shows
    step.row.octet = 1 + below(9);
    steps_.push_back(step);
    return word(kind) + " member " + std::to_string(id) + " port=" + std::to_string(step.row.port) +
           " encap=9 dst-mac=02:00:00:00:00:0" + std::to_string(step.row.octet) + "\n";
  }

  std::string group() {
    const unsigned id = 1 + below(4);
    Step step{.kind = static_cast<Step::Kind>(below(3)), .key = "group " + std::to_string(id)};
    std::string text = word(step.kind) + " group " + std::to_string(id);
    if (step.kind != Step::Kind::delete_) {
      text += " members=";
      for (unsigned count = 1 + below(3); count > 0; --count) {
        step.row.members.push_back(1 + below(members));
        text += std::to_string(step.row.members.back()) + (count > 1 ? "," : "");
      }
    }
    steps_.push_back(step);
    return text + "\n";
  }

  std::string port(unsigned id) {
    Step step{.kind = Step::Kind::port_, .intf = "Ethernet" + std::to_string(1 + below(40))};
    step.row.port = id;
    steps_.push_back(step);
    return "port " + std::to_string(id) + " " + step.intf + "\n";
  }

  std::string encap() {
    Step step{.kind = Step::Kind::encap_};
    step.row.octet = 1 + below(200);
    steps_.push_back(step);
    return "encap 9 src=192.0.2." + std::to_string(step.row.octet) + " dst=198.51.100.7\n";
  }

  std::string write() {
    const unsigned which = below(20);
    return which < 15   ? flow()
           : which < 18 ? group()
                        : member(Step::Kind::modify_, 1 + below(members));
  }

  std::string command() {
    const std::size_t first = steps_.size();
    std::string text;
    switch (below(12)) {
      case 0:
        text = port(1 + below(3));
        break;
      case 1:
        text = encap();
        break;
      case 2:
        text = "begin\n";
        for (unsigned count = 2 + below(6); count > 0; --count) {
          text += write();
        }
        text += "commit\n";
        break;
      default:
        text = write();
    }
    return text + echo(first);
  }
  std::string echo(std::size_t firstStep) {
    ++commands_;
    for (std::size_t at = firstStep; at < steps_.size(); ++at) {
      steps_[at].command = commands_;
    }
    return "echo " + std::to_string(commands_) + "\n";
  }

  std::string setUp() {
    std::string text = port(1) + port(2) + port(3) + encap();
    for (unsigned id = 1; id <= members; ++id) {
      text += member(Step::Kind::insert_, id);
    }
    return text + echo(0);
  }

  std::unique_ptr<Process> start(CliTest::Arguments arguments) {
    arguments.insert(arguments.end(), {"--json", "--shm", name_});
    if (below(3) == 0) {
      arguments.emplace_back("--verify");
    }
    return std::make_unique<Process>(OSTRA_SIM_PROGRAM, arguments);
  }

  // Makes the steps that the output answers, and compares each result with what it must be.
  void takeAnswers(const std::string& output) {
    std::size_t next = 0;
    const std::size_t whole = output.rfind('\n') + 1;  // a line that was cut is no answer
    for (const std::string& line : CliTest::linesOf(output.substr(0, whole))) {
      const Json object = Json::parse(line);
      if (object["type"] == "echo") {
        const unsigned upTo = static_cast<unsigned>(std::stoul(object["text"].get<std::string>()));
        while (next < steps_.size() && steps_[next].command <= upTo) {
          ASSERT_FALSE(steps_[next].isWrite()) << "no result for " << steps_[next].key;
          steps_[next++].apply(model_, 0);
        }
      } else if (object["type"] == "result" && object["op"] != "announce") {
        while (!steps_[next].isWrite()) {
          steps_[next++].apply(model_, 0);
        }
        takeResult(steps_[next++], object);
      }
    }
    steps_.erase(steps_.begin(), steps_.begin() + static_cast<std::ptrdiff_t>(next));
  }

  void takeResult(const Step& step, const Json& result) {
    EXPECT_EQ(result["state"] != "rejected", step.fits(model_)) << step.key << ": " << result;
    const auto handle = result.value("handle", std::uint64_t{0});
    if (step.fits(model_) && step.kind == Step::Kind::insert_) {
      EXPECT_GT(handle, lastHandle_) << "a handle was given out twice";
      lastHandle_ = handle;
    } else if (step.fits(model_)) {
      EXPECT_EQ(handle, model_.rows[step.key].handle) << step.key;
    }
    step.apply(model_, handle);
  }

  // The columns of the rows that ostra-show prints, titles left out.
  std::vector<std::vector<std::string>> shownRows(const std::string& topic) {
    std::vector<std::vector<std::string>> rows;
    for (const std::string& line : CliTest::linesOf(CliTest::show({name_, topic}).out)) {
      std::istringstream words{line};
      rows.emplace_back(std::istream_iterator<std::string>{words},
                        std::istream_iterator<std::string>{});
    }
    EXPECT_GE(rows.size(), 2U);
    rows.erase(rows.begin(), rows.begin() + std::min<std::ptrdiff_t>(3, std::ssize(rows)));
    return rows;
  }

  static unsigned valueOf(const std::vector<std::string>& words, const std::string& name) {
    for (const std::string& word : words) {
      if (word.starts_with(name + "=")) {
        return static_cast<unsigned>(std::stoul(word.substr(name.size() + 1)));
      }
    }
    return 0;
  }

  // The rows as they stand in shared memory, and under which handles.
  void observeRows(std::multiset<std::string>& lines) {
    for (const auto& row : shownRows("flows")) {
      const unsigned id = static_cast<unsigned>(std::stoul(row.at(2)));
      lines.insert("stored in " + row[0] + ": " +
                   Model::flowLine(id, valueOf(row, "vrf"), valueOf(row, "trafficClass"),
                                   valueOf(row, "group")));
      found_["flow " + row[2]] = std::stoull(row[1]);
    }
    for (const auto& row : shownRows("members")) {
      found_["member " + row.at(0)] = std::stoull(row.at(1));
    }
    for (const auto& row : shownRows("groups")) {
      found_["group " + row.at(0)] = std::stoull(row.at(1));
    }
  }

  // What a switch that has resumed shows.
  std::multiset<std::string> observe(Process& process) {
    process.write("show flows\nshow groups\nshow vrfs\necho seen\n");
    std::multiset<std::string> lines;
    for (const std::string& line : CliTest::linesOf(process.readUntil("\"seen\"}\n"))) {
      const Json object = Json::parse(line);
      for (const Json& flow : object.value("flows", Json::array())) {
        const Json& actions = flow["actions"];
        const auto id = flow["priority"].get<unsigned>();
        lines.insert(Model::flowLine(id, actions.value("vrf", 0U),
                                     actions.value("trafficClass", 0U),
                                     actions.value("group", 0U)));
        EXPECT_EQ(flow["match"]["ipDst"]["value"], "10.0.0." + std::to_string(id));
        EXPECT_EQ(flow["name"], "flow-" + std::to_string(flow["entryId"].get<std::uint64_t>()));
        flowIds_["flow " + std::to_string(id)] = flow["entryId"];
      }
      for (const Json& group : object.value("groups", Json::array())) {
        std::string text = "group " + std::to_string(group["id"].get<std::uint64_t>()) + ":";
        for (const Json& bucket : group["buckets"]) {
          const Json& actions = bucket["actions"];
          text += " " + actions["outputIntf"].get<std::string>() + " " +
                  actions["encap"]["src"].get<std::string>() + " " +
                  actions["dstMac"].get<std::string>();
        }
        lines.insert(text);
      }
      for (const Json& vrf : object.value("vrfs", Json::array())) {
        lines.insert("vrf " + std::to_string(vrf["vrf"].get<unsigned>()) + ": " +
                     std::to_string(vrf["refCount"].get<unsigned>()));
        EXPECT_EQ(vrf["creator"], 0);
      }
    }
    observeRows(lines);
    return lines;
  }

  static std::string difference(const std::multiset<std::string>& from,
                                const std::multiset<std::string>& without) {
    std::vector<std::string> lines;
    std::set_difference(from.begin(), from.end(), without.begin(), without.end(),
                        std::back_inserter(lines));
    return testing::PrintToString(lines);
  }

  // Everything answered is there, and of the rest a first part.
  void compare(Process& process) {
    found_.clear();
    flowIds_.clear();
    const auto seen = observe(process);
    const Model answered = model_;
    std::size_t made = 0;
    while (seen != model_.picture() && made < steps_.size()) {
      steps_[made++].apply(model_, 0);
    }
    const auto expected = answered.picture();
    ASSERT_EQ(seen, model_.picture())
        << steps_.size() << " steps unanswered; not answered for: " << difference(seen, expected)
        << "\nanswered for and missing: " << difference(expected, seen);
    steps_.clear();
    EXPECT_EQ(found_.size(), model_.rows.size());
    const std::uint64_t told = lastHandle_;
    for (auto& [key, row] : model_.rows) {
      const std::uint64_t handle = found_[key];
      if (row.handle == 0) {
        EXPECT_GT(handle, told) << key;
        row.handle = handle;
      }
      EXPECT_EQ(handle, row.handle) << key;
      lastHandle_ = std::max(lastHandle_, handle);
    }
    for (const auto& [key, id] : flowIds_) {
      EXPECT_EQ(id, model_.rows[key].handle) << key;
    }
  }

  static std::string word(Step::Kind kind) {
    return kind == Step::Kind::insert_   ? "insert"
           : kind == Step::Kind::modify_ ? "modify"
                                         : "delete";
  }

  void fresh() {
    model_ = {};
    steps_.clear();
    lastHandle_ = 0;
    const auto process = start({"--discard"});
    process->write(setUp());
    takeAnswers(process->readUntil("\"" + std::to_string(commands_) + "\"}\n"));
    process->kill(SIGKILL);
    takeAnswers(process->finish().out);
  }

  void round() {
    const auto process = start({"--resume"});
    if (below(4) == 0) {  // dies while it resumes, perhaps
      std::this_thread::sleep_for(std::chrono::microseconds{below(patience_)});
    } else {
      ASSERT_NO_FATAL_FAILURE(compare(*process));
      std::string text;
      for (unsigned count = 1 + below(150); count > 0; --count) {
        text += command();
      }
      process->write(text);
      std::this_thread::sleep_for(std::chrono::microseconds{below(patience_)});
    }
    process->kill(SIGKILL);
    takeAnswers(process->finish().out);
  }

  static constexpr unsigned members = 6;

  const std::string name_ = uniqueName("ostra-crash-test");
  const unsigned patience_ = 12000;  // microseconds
  std::mt19937 random_{static_cast<unsigned>(setting("OSTRA_CRASH_SEED", 1))};
  Model model_;
  std::vector<Step> steps_;  // that are not known to have been made
  unsigned commands_ = 0;
  std::uint64_t lastHandle_ = 0;
  std::map<std::string, std::uint64_t> found_;    // handles of the rows in shared memory
  std::map<std::string, std::uint64_t> flowIds_;  // entry ids in Corvex
};

TEST_F(CliCrash, NothingAnsweredIsLostAndNothingElseIsTorn) {
  const unsigned long rounds = setting("OSTRA_CRASH_ROUNDS", 25);
  for (unsigned long number = 0; number < rounds && !HasFailure(); ++number) {
    SCOPED_TRACE("round " + std::to_string(number));
    if (number % 50 == 0) {
      ASSERT_NO_FATAL_FAILURE(fresh());
    }
    ASSERT_NO_FATAL_FAILURE(round());
  }
}

TEST_F(CliCrash, WhatAKilledOneLeftIsGoneOnWithOrRemovedAndNeverLostSilently) {
  const auto killed = start({});
  killed->write("port 1 Ethernet1\ninsert flow priority=1 -> drop\necho ready\n");
  killed->readUntil("ready");
  // One name, one process.
  EXPECT_THAT(CliTest::sim("", {"--shm", name_, "--discard"}).errors,
              testing::HasSubstr("is in use by process " + std::to_string(killed->id())));
  killed->kill(SIGKILL);
  killed->finish();

  const CliTest::Finished refused = CliTest::sim("", {"--shm", name_});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors,
              testing::AllOf(testing::HasSubstr("process"), testing::HasSubstr("--resume"),
                             testing::HasSubstr("--discard")));
  const auto resumed = start({"--resume"});
  resumed->write("show flows\necho ready\n");
  EXPECT_THAT(resumed->readUntil("ready"), testing::HasSubstr("flow-1"));
  resumed->kill(SIGKILL);
  resumed->finish();
  const CliTest::Finished discarded = CliTest::sim("show flows\n", {"--shm", name_, "--discard"});
  EXPECT_THAT(discarded.out, testing::HasSubstr("flows: 0"));
  // It ended by itself, so there is nothing to refuse.
  EXPECT_EQ(CliTest::sim("", {"--shm", name_}).status, 0);
  EXPECT_EQ(CliTest::sim("", {"--resume"}).status, 2);
  EXPECT_EQ(CliTest::sim("", {"--shm", name_, "--resume", "--discard"}).status, 2);
}

}  // namespace
