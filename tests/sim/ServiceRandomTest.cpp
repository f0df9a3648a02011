// Long runs of random batches, restarts and interference, against a simple model of what must come of them.
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

// What the service stores, and how each write must end when the hardware has room and answers.
class Model {
 public:
  std::string write(Op op, const Flow& flow) {
    const auto stored = rows_.find({flow.table, flow.number});
    if ((stored == rows_.end()) != (op == Op::insert_)) {
      return std::string{text(op)} + " flow rejected";
    }
    const std::uint64_t handle = op == Op::insert_ ? ++lastHandle_ : stored->second.handle;
    std::string line = std::string{text(op)} + " flow " + std::to_string(handle);
    if (op == Op::delete_) {
      rows_.erase(stored);
    } else {
      rows_[{flow.table, flow.number}] = {handle, flow};
    }
    return line + (op == Op::delete_ || !flow.output ? " done 0" : " done 15");
  }

  // The flows that a fresh library makes of the rows, and the users of each VRF.
  [[nodiscard]] Lines flows() const {
    std::set<std::uint64_t> handles;
    for (const auto& [key, row] : rows_) {
      if (!row.flow.output) {
        handles.insert(row.handle);
      }
    }
    Lines names;
    for (const std::uint64_t handle : handles) {
      names.push_back("flow-" + std::to_string(handle));
    }
    return names;
  }
  [[nodiscard]] Lines vrfs() const {
    std::map<Vrf::VrfIdMap::VrfId, int> users;
    for (const auto& [key, row] : rows_) {
      if (!row.flow.output && row.flow.vrf) {
        ++users[*row.flow.vrf];
      }
    }
    Lines lines;
    for (const auto& [vrf, count] : users) {
      lines.push_back(std::to_string(vrf) + ": " + std::to_string(count) +
                      " users, creator 0, deletor 0");
    }
    return lines;
  }
  [[nodiscard]] std::size_t failing() const {
    return static_cast<std::size_t>(std::count_if(
        rows_.begin(), rows_.end(), [](const auto& row) { return row.second.flow.output; }));
  }

 private:
  struct Row {
    std::uint64_t handle;
    Flow flow;
  };
  std::map<std::pair<std::uint8_t, std::uint32_t>, Row> rows_;
  std::uint64_t lastHandle_ = 0;
};

class ServiceRandom : public Switch, public testing::WithParamInterface<unsigned> {
 protected:
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  Flow flow() {
    Flow flow{.number = below(12), .table = static_cast<std::uint8_t>(below(2) * 14)};
    if (below(2) == 0) {
      flow.vrf = 1 + below(3);
    }
    if (below(4) == 0) {
      flow.output = 0;  // refused
    }
    return flow;
  }
  Update update(Lines& expected) {
    const Flow written = flow();
    const auto op = static_cast<Op>(below(3));
    expected.push_back(model_.write(op, written));
    return Update::flow(op, written.table, rowOf(written));
  }
  std::vector<Update> batch(Lines& expected) {
    std::vector<Update> updates;
    for (unsigned count = 1 + below(8); count > 0; --count) {
      updates.push_back(update(expected));
    }
    return updates;
  }
  // The words that the model knows: without the messages.
  static Lines shortened(Lines lines) {
    for (std::string& line : lines) {
      for (const char* end : {" rejected", " done 0", " done 15"}) {
        if (const auto at = line.find(end); at != std::string::npos) {
          line.resize(at + std::string_view{end}.size());
        }
      }
    }
    return lines;
  }

  void restartAndCompare() {
    service.stop();
    const Sim::Announcement announced = service.start();
    EXPECT_EQ(announced.failure, std::nullopt);
    EXPECT_EQ(announced.results.size(), model_.failing());
    reports();
    service.verify();
    EXPECT_EQ(flows(), model_.flows());
    EXPECT_EQ(hardware().size(), model_.flows().size());
    EXPECT_EQ(vrfs(), model_.vrfs());
  }

  Model model_;

 private:
  std::mt19937 random_{GetParam()};
};

TEST_P(ServiceRandom, EveryBatchComesOutAsItMust) {
  for (int round = 0; round < 150; ++round) {
    Lines expected;
    const auto updates = batch(expected);
    ASSERT_EQ(shortened(apply(updates)), expected) << "round " << round;
    EXPECT_THAT(reports(), IsEmpty()) << "round " << round;
    service.verify();
    agent.verify();
    if (below(20) == 0) {
      restartAndCompare();
    }
  }
  restartAndCompare();
}

// Whatever happens meanwhile, the books stay whole, and a restart mends everything.
TEST_P(ServiceRandom, InterferenceLeavesTheBooksWhole) {
  for (int round = 0; round < 300; ++round) {
    Lines expected;
    switch (below(9)) {
      case 0:
        agent.automaticIs(below(2) == 0);
        break;
      case 1:
        agent.run();
        break;
      case 2:
        agent.flowStatusIs("flow-" + std::to_string(below(40)), static_cast<FlowStatus>(below(15)));
        break;
      case 3:
        agent.flowStatusDel("flow-" + std::to_string(below(40)));
        break;
      case 4:
        service.corvexFlowDel("flow-" + std::to_string(below(40)));
        break;
      case 5:
        service.corvexFlowIs("flow-" + std::to_string(below(40)));
        break;
      case 6:
        agent.publishedIs(below(2) == 0);
        break;
      case 7:
        if (below(4) == 0) {
          service.stop();
          service.verify();
          service.start();
        }
        break;
      default: {
        const auto updates = batch(expected);
        EXPECT_EQ(apply(updates).size(), expected.size());
      }
    }
    Sim::Service::settle();
    service.verify();
    agent.verify();
  }
  agent.automaticIs(true);
  agent.publishedIs(true);
  Sim::Service::settle();
  // What was put into Corvex or published by hand goes with the first restart, or is withdrawn.
  service.stop();
  service.start();
  for (int number = 0; number < 40; ++number) {
    if (agent.status().flowStats("flow-" + std::to_string(number)) != nullptr &&
        service.hwConfig()->flowEntry("flow-" + std::to_string(number)) == nullptr) {
      agent.flowStatusDel("flow-" + std::to_string(number));
    }
  }
  restartAndCompare();
}

INSTANTIATE_TEST_SUITE_P(Seeds, ServiceRandom, testing::Range(1U, 9U));

}  // namespace
