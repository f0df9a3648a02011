#include "tests/soak/Soak.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "Ostra/OstraStatus.h"
#include "cli/StepClock.h"
#include "cli/language/Interpreter.h"
#include "cli/output/JsonPrinter.h"
#include "sim/TablePaths.h"
#include "tests/soak/Generator.h"
#include "tests/soak/Model.h"

namespace Soak {
namespace {

// The real switch behind the command language.
class Switch {
 public:
  Switch() {
    Cli::StepClock::install();
    service_.start();
  }

  Lines play(const Command& command) {
    for (const std::string& line : lines(command)) {
      interpreter_.playLine({.text = line}, "soak");
    }
    Lines out;
    for (std::string line; std::getline(out_, line);) {
      if (line.find("is corrupt: ") == std::string::npos) {
        out.push_back(line);
      }
    }
    out_.str({});
    out_.clear();
    return out;
  }

  [[nodiscard]] const Sim::Service& service() const { return service_; }
  [[nodiscard]] const Sim::HwAgent& agent() const { return agent_; }

 private:
  Sim::Service service_;
  Sim::HwAgent agent_{service_.hwConfig(), service_.hwStatusDir(), service_.hwUnitDir()};
  std::stringstream out_;
  Cli::JsonPrinter printer_{out_};
  Cli::Interpreter interpreter_{
      service_, agent_, printer_, {.keepGoing = true, .beforeCommand = Cli::StepClock::advance}};
};

// Looks at everything that can be seen, and says what differs first.
class Comparison {
 public:
  Comparison(const Switch& real, Model& model)
      : service_{real.service()}, agent_{real.agent()}, model_{model} {}

  std::string difference() {
    if (model_.damaged == 0) {
      service_.verify();
    }
    agent_.verify();
    same("the library is running", service_.running(), model_.running);
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

 private:
  void same(const std::string& what, const auto& real, const auto& expected) {
    if (difference_.empty() && !(real == expected)) {
      std::ostringstream text;
      text << what;
      if constexpr (requires { text << real << expected; }) {
        text << ": is " << real << ", expected " << expected;
      }
      difference_ = text.str();
    }
  }
  template <class Key, class Value>
  void same(const std::string& what, const std::map<Key, Value>& real,
            const std::map<Key, Value>& expected) {
    const auto [is, wanted] =
        std::mismatch(real.begin(), real.end(), expected.begin(), expected.end());
    const bool more = wanted == expected.end() || (is != real.end() && is->first < wanted->first);
    if (is != real.end() || wanted != expected.end()) {
      std::ostringstream text;
      text << what << (more ? is : wanted)->first;
      if (is != real.end() && wanted != expected.end() && is->first == wanted->first) {
        same(text.str(), is->second, wanted->second);
      } else {
        same(text.str() + " is there", more, !more);
      }
    }
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
      same("the rest of " + *name,
           flow->persistent() && !flow->sendFlowRemoved() && flow->cookie() == 0 &&
               flow->idleTimeout() == 0 && flow->hardTimeout() == 0,
           true);
    }
    same("Corvex flow ", real, model_.corvexFlows.asMap());
  }

  void groups() {
    std::map<std::uint64_t, CorvexGroupState> real;
    for (const auto* const group : service_.groups()) {
      CorvexGroupState& state = real[group->id()];
      state = {static_cast<unsigned>(group->groupType()), {}, group->changeCount()};
      for (const auto& bucket : group->bucket()) {
        state.buckets.push_back(bucket.actions);
      }
      same("the flags of group " + std::to_string(group->id()), group->ready() && !group->deleted(),
           true);
    }
    same("Corvex group ", real, model_.corvexGroups);
  }

  void vrfs() {
    std::map<std::uint32_t, VrfState> real;
    for (const Sim::VrfView& view : service_.vrfs()) {
      real[view.vrf] = {view.refCount, Handle{view.creator}, Handle{view.deletor}};
    }
    same("VRF ", real, model_.vrfs);
    std::map<Handle, std::uint32_t> dependents;
    for (const Sim::DependentView& view : service_.dependents()) {
      dependents[view.handle] = view.vrf;
    }
    same("dependent ", dependents, model_.dependents);
  }

  void entries() {
    std::map<Handle, std::string> real;
    for (const Sim::TableView& table : service_.entries()) {
      for (const Sim::EntryView& entry : table.entries) {
        real[entry.handle] = entryText(table.table, entry.indexed, entry.vrf);
      }
    }
    std::map<Handle, std::string> expected;
    for (auto& table : model_.flowTables) {
      table.each([&](const FlowKey& key, const FlowRow& row) {
        const auto handle = model_.handleOf.find(key);
        const auto vrf = model_.vrfOf.find(key);
        if (!row.damaged) {
          expected[row.handle] = entryText(
              key.table, handle != model_.handleOf.end() && handle->second == row.handle,
              vrf == model_.vrfOf.end() || vrf->second == noVrf ? std::nullopt
                                                                : std::optional{vrf->second});
        }
      });
    }
    same("entry ", real, expected);
  }
  static std::string entryText(unsigned table, bool indexed, std::optional<std::uint32_t> vrf) {
    return std::to_string(table) + (indexed ? " indexed" : "") +
           (vrf ? " " + std::to_string(*vrf) : "");
  }

  void hardware() {
    same("the flows and groups that wait for the hardware", agent_.waiting(), model_.waiting());
    std::map<std::string, std::uint32_t> flows;
    for (const auto& flow : agent_.status().flowStats()) {
      flows[flow.key] = static_cast<std::uint32_t>(flow.value.status());
    }
    std::map<std::uint64_t, std::uint32_t> groups;
    for (const auto& group : agent_.status().groupStats()) {
      groups[group.key] = static_cast<std::uint32_t>(group.value.status());
    }
    same("the status of flow ", flows, model_.flowStatus.asMap());
    same("the status of group ", groups, model_.groupStatus.asMap());
    same("what is published", agent_.publishedFlows().size(),
         model_.published ? model_.flowStatus.size() : 0);
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
    same("status row ", real, expected);
  }

  void pending() {
    std::map<Handle, std::string> real;
    for (const Sim::PendingView& view : service_.pending()) {
      real[view.handle] = std::string{text(view.op)} + " in " + std::to_string(view.table) +
                          " since " + std::to_string(view.since);
    }
    same("the pending entry ", real, model_.pending());
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
    for (std::size_t at = 0; at < std::max(real.size(), expected->size()); ++at) {
      same("a finding", at < real.size() ? real[at] : "none",
           at < expected->size() ? (*expected)[at] : "none");
    }
  }

  const Sim::Service& service_;
  const Sim::HwAgent& agent_;
  Model& model_;
  std::string difference_;
};

std::string differenceOf(const Lines& real, const Lines& expected) {
  for (std::size_t at = 0; at < std::max(real.size(), expected.size()); ++at) {
    const std::string is = at < real.size() ? real[at] : "nothing";
    const std::string expectedLine = at < expected.size() ? expected[at] : "nothing";
    if (is != expectedLine) {
      return "is       " + is + "\nexpected " + expectedLine;
    }
  }
  return {};
}

// `next` gives the next command, or nothing at the end.
template <class Next>
Outcome play(Next next) {
  Outcome outcome;
  Switch real;
  Model model;
  while (const std::optional<Command> command = next(model)) {
    ++outcome.commands;
    outcome.played.push_back(*command);
    const Lines expected = model.play(*command);
    outcome.difference = differenceOf(real.play(*command), expected);
    if (outcome.difference.empty()) {
      outcome.difference = Comparison{real, model}.difference();
    }
    if (!outcome.difference.empty()) {
      break;
    }
  }
  outcome.writes = model.writes;
  return outcome;
}

bool differs(const History& history) { return !replay(history).difference.empty(); }

// Removes runs of commands, halving their length down to one.
void removeCommands(History& history) {
  for (std::size_t length = std::max<std::size_t>(history.size() / 2, 1); length > 0; length /= 2) {
    for (std::size_t at = 0; at < history.size();) {
      History fewer = history;
      const auto begin = fewer.begin() + static_cast<std::ptrdiff_t>(at);
      fewer.erase(begin, begin + static_cast<std::ptrdiff_t>(std::min(length, fewer.size() - at)));
      if (differs(fewer)) {
        history = std::move(fewer);
      } else {
        at += length;
      }
    }
  }
}

void removeWrites(History& history) {
  for (std::size_t at = 0; at < history.size(); ++at) {
    for (std::size_t one = 0; history[at].isBatch && one < history[at].steps.size();) {
      History fewer = history;
      auto& writes = fewer[at].steps;
      writes.erase(writes.begin() + static_cast<std::ptrdiff_t>(one));
      if (differs(fewer)) {
        history = std::move(fewer);
      } else {
        ++one;
      }
    }
  }
}

}  // namespace

Outcome soak(std::uint64_t seed, std::size_t commands) {
  Generator generator{seed};
  return play([&](const Model& model) -> std::optional<Command> {
    return commands-- > 0 ? std::optional{generator.next(model)} : std::nullopt;
  });
}

Outcome replay(const History& history) {
  std::size_t at = 0;
  return play([&](const Model&) -> std::optional<Command> {
    return at < history.size() ? std::optional{history[at++]} : std::nullopt;
  });
}

History shrunk(History history) {
  for (std::size_t before = 0; before != history.size();) {
    before = history.size();
    removeCommands(history);
    removeWrites(history);
  }
  return history;
}

std::string script(std::uint64_t seed, const Outcome& outcome) {
  std::string text = "# seed " + std::to_string(seed) + "\n# ";
  for (const char c : outcome.difference) {
    text += c == '\n' ? std::string{"\n# "} : std::string{c};
  }
  text += "\n# play it with: ostra-sim --json --keep-going --clock steps FILE\n";
  for (const Command& command : outcome.played) {
    for (const std::string& line : lines(command)) {
      text += line + "\n";
    }
  }
  return text;
}

}  // namespace Soak
