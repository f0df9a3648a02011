#include "tests/soak/Soak.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "Ostra/OstraStatus.h"
#include "cli/StepClock.h"
#include "cli/language/Interpreter.h"
#include "sim/TablePaths.h"
#include "tests/soak/Generator.h"

namespace Soak {
namespace {

std::string differenceOf(const Lines& real, const Lines& expected) {
  for (std::size_t at = 0; at < std::max(real.size(), expected.size()); ++at) {
    const std::string is = at < real.size() ? real[at] : "nothing";
    const std::string expectedLine = at < expected.size() ? expected[at] : "nothing";
    if (is != expectedLine) {
      return std::string{"is       "}.append(is).append("\n# expected ").append(expectedLine);
    }
  }
  return {};
}

// The real switch behind the command language, and the model.
class Pair {
 public:
  Pair() {
    Cli::StepClock::install();
    service_.start();
  }

  // Plays the command on both, looks at everything that can be seen, and says what differs first.
  std::string difference(std::span<Step> command) {
    const Lines expected = model_.play(command);
    for (const std::string& line : model_.played) {
      interpreter_.playLine({.text = line}, "soak");
    }
    Lines out;
    for (std::string line; std::getline(out_, line);) {
      if (line.find("is corrupt: ") == std::string::npos) {
        out.push_back(line);
      }
    }
    out_ = std::stringstream{};
    difference_ = differenceOf(out, expected);
    if (!difference_.empty()) {
      return difference_;
    }
    if (model_.damaged.empty()) {
      service_.verify();
    }
    agent_.verify();
    whole();
    flows();
    groups();
    vrfs();
    entries();
    hardware();
    statusTables();
    pending();
    audit();
    return difference_;
  }
  Model& model() { return model_; }

 private:
  template <class Key, class Value>
  void same(const std::string& what, const std::map<Key, Value>& real,
            const std::map<Key, Value>& expected) {
    const auto [is, wanted] =
        std::mismatch(real.begin(), real.end(), expected.begin(), expected.end());
    if (difference_.empty() && (is != real.end() || wanted != expected.end())) {
      std::ostringstream text;
      const auto print = [&text](const std::string& words, auto at, auto end) {
        text << words;
        if (at == end) {
          text << "nothing";
        } else if constexpr (requires { text << at->second; }) {
          text << at->first << ": " << at->second;
        } else {
          text << at->first;
        }
      };
      print(what + ": is ", is, real.end());
      print(", expected ", wanted, expected.end());
      difference_ = text.str();
    }
  }

  void whole() {
    using Whole = std::map<std::string, std::size_t>;
    same("the switch",
         Whole{{"running", service_.running()},
               {"waiting for the hardware", agent_.waiting()},
               {"published flows", agent_.publishedFlows().size()}},
         Whole{{"running", model_.running},
               {"waiting for the hardware", model_.queue.size()},
               {"published flows", model_.published ? model_.flowStatus.size() : 0}});
  }
  void flows() {
    std::map<std::string, CorvexFlowState> real;
    for (const auto& [name, flow] : service_.flows()) {
      real[*name] = {flow->match(),
                     flow->actions(),
                     flow->priority().value(),
                     flow->priorityGroupType(),
                     static_cast<std::int32_t>(flow->tableType()),
                     flow->entryId(),
                     flow->changeCount()};
      if (!flow->persistent() || flow->sendFlowRemoved() || flow->cookie() != 0 ||
          flow->idleTimeout() != 0 || flow->hardTimeout() != 0) {
        real.erase(*name);  // which is not the flow that is expected
      }
    }
    same("Corvex flow", real, model_.corvexFlows.asMap());
  }

  void groups() {
    std::map<std::uint64_t, CorvexGroupState> real;
    for (const auto* const group : service_.groups()) {
      CorvexGroupState state{static_cast<unsigned>(group->groupType()), {}, group->changeCount()};
      for (const auto& bucket : group->bucket()) {
        state.buckets.push_back(bucket.actions);
      }
      if (group->ready() && !group->deleted()) {
        real[group->id()] = state;
      }
    }
    same("Corvex group", real, model_.corvexGroups);
  }

  void vrfs() {
    std::map<std::uint32_t, VrfState> real;
    for (const Sim::VrfView& view : service_.vrfs()) {
      real[view.vrf] = {view.refCount, Handle{view.creator}, Handle{view.deletor}};
    }
    same("VRF", real, model_.vrfs);
    std::map<Handle, std::uint32_t> dependents;
    for (const Sim::DependentView& view : service_.dependents()) {
      dependents[view.handle] = view.vrf;
    }
    same("dependent", dependents, model_.dependents);
  }

  void entries() {
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
  void hardware() {
    std::map<std::string, std::uint32_t> flows;
    for (const auto& flow : agent_.status().flowStats()) {
      flows[flow.key] = static_cast<std::uint32_t>(flow.value.status());
    }
    same("the status of flow", flows, model_.flowStatus.asMap());
    std::map<std::uint64_t, std::uint32_t> groups;
    for (const auto& group : agent_.status().groupStats()) {
      groups[group.key] = static_cast<std::uint32_t>(group.value.status());
    }
    same("the status of group", groups, model_.groupStatus.asMap());
    auto counts = model_.counts;
    for (auto& [name, count] : counts) {
      const Handle handle = handleIn(name);
      if (const auto real = service_.counter(handle); real && flowName(handle) == name) {
        count = {real->packets, real->bytes};
      }
    }
    same("the counters of", counts, model_.counts);
  }
  void statusTables() {
    std::map<Handle, StatusRow> real;
    std::map<Handle, StatusRow> expected;
    const auto place = [](std::uint64_t table, Handle handle) { return table << 56U | handle; };
    for (std::uint64_t table = 0; table < model_.flowTables.size(); ++table) {
      const auto status = service_.entityManager()->entity<Ostra::OstraStatus>(
          std::string{Sim::flowStatusDir} + "/" + std::to_string(table));
      Vasta::Hint hint;
      while (const auto* const row = status->table().next(hint)) {
        real[place(table, row->entryHandle)] = {
            row->entryHandle, static_cast<std::uint32_t>(row->errorCode), row->deleted, row->genId};
      }
    }
    for (const auto& [key, row] : model_.statusRows) {
      expected[place(key.table, row.handle)] = row;
    }
    same("status row", real, expected);
  }

  void pending() {
    std::map<Handle, std::string> real;
    for (const Sim::PendingView& view : service_.pending()) {
      real[view.handle] = std::string{text(view.op)} + " in " + std::to_string(view.table) +
                          " since " + std::to_string(view.since);
    }
    same("the pending entry", real, model_.pending());
  }

  // All that an audit finds, with every answer of the hardware overdue.
  void audit() {
    const auto expected = model_.running ? model_.audit() : std::nullopt;
    if (!expected) {
      return;
    }
    Lines real;
    const auto report = service_.audit({.answerLimit = -1});
    for (const Ostra::AuditFinding& finding : report.value().findings) {
      real.push_back((finding.fault ? "fault " : "expected ") +
                     std::string{auditKindText(finding.kind)} + " " + finding.about);
    }
    std::sort(real.begin(), real.end());
    if (difference_.empty()) {
      difference_ = differenceOf(real, *expected);
    }
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

// `next` gives the next command, or nothing at the end.
Outcome play(auto next) {
  Outcome outcome;
  Pair pair;
  for (History command; outcome.difference.empty() && !(command = next(pair.model())).empty();) {
    ++outcome.commands;
    outcome.difference = pair.difference(command);
    outcome.played.insert(outcome.played.end(), command.begin(), command.end());
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

Outcome replay(const History& history) {
  return play([at = history.begin(), end = history.end()](const Model&) mutable {
    const auto first = at;
    while (at != end && (at == first || (at->batch != 0 && at->batch == first->batch))) {
      ++at;
    }
    return History(first, at);
  });
}

}  // namespace

Outcome soak(std::uint64_t seed, std::size_t commands) {
  Generator generator{seed};
  return play([&](Model& model) { return commands-- > 0 ? generator.next(model) : History{}; });
}

// Removes runs of steps, halving their length down to one, until none can be removed.
Outcome shrunk(const History& history) {
  History kept = history;
  Outcome shortest = replay(kept);
  for (std::size_t before = 0; before != kept.size();) {
    before = kept.size();
    for (std::size_t length = std::max<std::size_t>(before / 2, 1); length > 0; length /= 2) {
      for (std::size_t at = 0; at < kept.size();) {
        History fewer = kept;
        const auto begin = fewer.begin() + static_cast<std::ptrdiff_t>(at);
        fewer.erase(begin, begin + static_cast<std::ptrdiff_t>(std::min(length, kept.size() - at)));
        if (Outcome outcome = replay(fewer); !outcome.difference.empty()) {
          kept = std::move(fewer);
          shortest = std::move(outcome);
        } else {
          at += length;
        }
      }
    }
  }
  return shortest;
}

}  // namespace Soak
