#include "tests/soak/Soak.h"

#include "Ostra/OstraStatus.h"
#include "cli/StepClock.h"
#include "cli/language/Interpreter.h"
#include "sim/TablePaths.h"
#include "tests/soak/Generator.h"

namespace Soak {
namespace {

// A map of the pairs that `pairOf` makes of the elements.
auto mapOf(const auto& all, auto pairOf) {
  using Pair = decltype(pairOf(*all.begin()));
  std::map<typename Pair::first_type, typename Pair::second_type> map;
  for (const auto& one : all) {
    map.insert(pairOf(one));
  }
  return map;
}

// A line, or the key of an element and its value if that can be printed.
std::string textOf(const auto& one) {
  std::ostringstream text;
  if constexpr (requires { text << one; }) {
    text << one;
  } else if constexpr (requires { text << one.second; }) {
    text << one.first << ": " << one.second;
  } else {
    text << one.first;
  }
  return text.str();
}

// The real switch behind the command language, and the model.
class Pair {
 public:
  Pair() {
    Cli::StepClock::install();
    service_.start();
  }

  // Plays the command on both, looks at everything that can be seen, and says what differs first.
  std::string difference(Command& command) {
    const Lines expected = model_.play(command);
    same("the output", printed(), expected);
    if (!difference_.empty()) {
      return difference_;
    }
    if (model_.damaged.empty()) {
      service_.verify();
    }
    agent_.verify();
    compareCorvex();
    compareLibrary();
    compareHardware();
    // All that an audit finds, with every answer of the hardware overdue.
    if (const auto findings = model_.running ? model_.audit() : std::nullopt) {
      same("the audit", audited(), *findings);
    }
    return difference_;
  }
  Model& model() { return model_; }

 private:
  // Notes the first difference of two lists or maps, unless one is noted already.
  void same(const std::string& what, const auto& real, const auto& expected) {
    const auto [is, wanted] =
        std::mismatch(real.begin(), real.end(), expected.begin(), expected.end());
    if (difference_.empty() && (is != real.end() || wanted != expected.end())) {
      difference_ = what + " is " + (is == real.end() ? "nothing" : textOf(*is)) + "\n# expected " +
                    (wanted == expected.end() ? "nothing" : textOf(*wanted));
    }
  }

  // What the interpreter prints of the command that the model has played.
  Lines printed() {
    for (const std::string& line : model_.played) {
      interpreter_.playLine({.text = line}, "soak");
    }
    Lines lines;
    for (std::string line; std::getline(out_, line);) {
      if (line.find("is corrupt: ") == std::string::npos) {
        lines.push_back(line);
      }
    }
    out_ = std::stringstream{};
    return lines;
  }

  void compareCorvex() {
    const auto flow = [](const Sim::FlowView& view) {
      const OpenFlowTable::FlowEntry& is = *view.flow;
      const bool isOdd = !is.persistent() || is.sendFlowRemoved() || is.cookie() != 0 ||
                         is.idleTimeout() != 0 || is.hardTimeout() != 0;
      return std::pair{
          *view.name + (isOdd ? " with other attributes" : ""),
          CorvexFlowState{is.match(), is.actions(), is.priority().value(), is.priorityGroupType(),
                          static_cast<std::int32_t>(is.tableType()), is.entryId(),
                          is.changeCount()}};
    };
    same("Corvex flow", mapOf(service_.flows(), flow), model_.corvexFlows.asMap());
    const auto group = [](const OpenFlowTable::GroupEntry* is) {
      CorvexGroupState state{static_cast<unsigned>(is->groupType()), {}, is->changeCount()};
      for (const auto& bucket : is->bucket()) {
        state.buckets.push_back(bucket.actions);
      }
      return std::pair{is->ready() && !is->deleted() ? is->id() : ~is->id(), state};
    };
    same("Corvex group", mapOf(service_.groups(), group), model_.corvexGroups);
  }

  void compareLibrary() {
    const auto vrf = [](const Sim::VrfView& is) {
      return std::pair{is.vrf, VrfState{is.refCount, Handle{is.creator}, Handle{is.deletor}}};
    };
    same("VRF", mapOf(service_.vrfs(), vrf), model_.vrfs);
    const auto dependent = [](const Sim::DependentView& is) {
      return std::pair{Handle{is.handle}, is.vrf};
    };
    same("dependent", mapOf(service_.dependents(), dependent), model_.dependents);
    const auto pending = [](const Sim::PendingView& is) {
      return std::pair{Handle{is.handle}, std::string{text(is.op)} + " in " +
                                              std::to_string(is.table) + " since " +
                                              std::to_string(is.since)};
    };
    same("the pending entry", mapOf(service_.pending(), pending), model_.pending());
    compareEntries();
    compareStatusRows();
  }

  void compareEntries() {
    const auto text = [](unsigned table, bool indexed, std::optional<std::uint32_t> vrf) {
      return std::to_string(table) + (indexed ? " indexed " : " ") +
             std::to_string(vrf.value_or(noVrf));
    };
    std::map<Handle, std::string> real;
    for (const Sim::TableView& table : service_.entries()) {
      for (const Sim::EntryView& entry : table.entries) {
        real[entry.handle] = text(table.table, entry.indexed, entry.vrf);
      }
    }
    std::map<Handle, std::string> expected;
    for (auto& table : model_.flowTables) {
      model_.eachRow(table, Model::AtDamage::goOn_, [&](const FlowKey& key, const FlowRow& row) {
        expected[row.handle] = text(key.table, valueIn(model_.handleOf, key) == row.handle,
                                    valueIn(model_.vrfOf, key));
      });
    }
    same("entry", real, expected);
  }

  void compareStatusRows() {
    std::map<std::string, StatusRow> real;
    const auto place = [](unsigned table, Handle handle) {
      return std::to_string(table) + " " + std::to_string(handle);
    };
    for (unsigned table = 0; table < model_.flowTables.size(); ++table) {
      const auto status = service_.entityManager()->entity<Ostra::OstraStatus>(
          std::string{Sim::flowStatusDir} + "/" + std::to_string(table));
      Vasta::Hint hint;
      while (const auto* const row = status->table().next(hint)) {
        real[place(table, row->entryHandle)] = {
            row->entryHandle, static_cast<std::uint32_t>(row->errorCode), row->deleted, row->genId};
      }
    }
    const auto expected = [&place](const auto& one) {
      return std::pair{place(one.first.table, one.second.handle), one.second};
    };
    same("status row", real, mapOf(model_.statusRows, expected));
  }

  void compareHardware() {
    using Whole = std::map<std::string, std::size_t>;
    same("the switch",
         Whole{{"running", service_.running()},
               {"waiting for the hardware", agent_.waiting()},
               {"published flows", agent_.publishedFlows().size()}},
         Whole{{"running", model_.running},
               {"waiting for the hardware", model_.queue.size()},
               {"published flows", model_.published ? model_.flowStatus.size() : 0}});
    const auto status = [](const auto& is) {
      return std::pair{is.key, static_cast<std::uint32_t>(is.value.status())};
    };
    same("the status of flow", mapOf(agent_.status().flowStats(), status),
         model_.flowStatus.asMap());
    same("the status of group", mapOf(agent_.status().groupStats(), status),
         model_.groupStatus.asMap());
    const auto count = [this](const auto& expected) {
      const Handle handle = handleIn(expected.first);
      const auto real = service_.counter(handle);
      return real && flowName(handle) == expected.first
                 ? std::pair{expected.first, std::pair{real->packets, real->bytes}}
                 : std::pair{expected.first, expected.second};
    };
    same("the counters of", mapOf(model_.counts, count), model_.counts);
  }

  Lines audited() {
    Lines found;
    const auto report = service_.audit({.answerLimit = -1});
    for (const Ostra::AuditFinding& finding : report.value().findings) {
      found.push_back((finding.fault ? "fault " : "expected ") +
                      std::string{auditKindText(finding.kind)} + " " + finding.about);
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  Sim::Service service_;
  Sim::HwAgent agent_{service_.hwConfig(), service_.hwStatusDir(), service_.hwUnitDir()};
  std::stringstream out_;
  std::unique_ptr<Cli::Printer> printer_ = Cli::jsonPrinter(out_);
  Cli::Interpreter interpreter_{
      service_, agent_, *printer_, {.keepGoing = true, .beforeCommand = Cli::StepClock::advance}};
  Model model_;
  std::string difference_;
};

// `next` gives the next command, or one without a step at the end.
Outcome play(auto next) {
  Outcome outcome;
  Pair pair;
  while (outcome.difference.empty()) {
    Command command = next(pair.model());
    if (command.steps.empty()) {
      break;
    }
    outcome.difference = pair.difference(command);
    outcome.played.push_back(std::move(command));
    for (const std::string& line : pair.model().played) {
      outcome.script += line + "\n";
    }
  }
  outcome.writes = pair.model().writes;
  outcome.script = "# " + outcome.difference +
                   "\n# play it with: ostra-sim --json --keep-going --clock steps FILE\n" +
                   outcome.script;
  return outcome;
}

std::size_t stepsOf(const History& history) {
  return std::accumulate(
      history.begin(), history.end(), std::size_t{0},
      [](std::size_t sum, const Command& command) { return sum + command.steps.size(); });
}

// The history without `count` steps from number `first` on.
History without(const History& history, std::size_t first, std::size_t count) {
  History rest;
  std::size_t number = 0;
  for (Command command : history) {
    std::erase_if(command.steps, [&](const Step&) {
      const std::size_t at = number++;
      return at >= first && at < first + count;
    });
    if (!command.steps.empty()) {
      rest.push_back(std::move(command));
    }
  }
  return rest;
}

}  // namespace

Outcome soak(std::uint64_t seed, std::size_t commands) {
  Generator generator{seed};
  return play([&](Model& model) { return commands-- > 0 ? generator.next(model) : Command{}; });
}

// Removes runs of steps, halving their length down to one, until none can be removed.
Outcome shrunk(Outcome outcome) {
  for (std::size_t before = 0; before != stepsOf(outcome.played);) {
    before = stepsOf(outcome.played);
    for (std::size_t length = std::max<std::size_t>(before / 2, 1); length > 0; length /= 2) {
      for (std::size_t at = 0; at < stepsOf(outcome.played);) {
        const History fewer = without(outcome.played, at, length);
        auto next = fewer.begin();
        Outcome shorter =
            play([&](const Model&) { return next == fewer.end() ? Command{} : *next++; });
        if (!shorter.difference.empty()) {
          outcome = std::move(shorter);
        } else {
          at += length;
        }
      }
    }
  }
  return outcome;
}

}  // namespace Soak
