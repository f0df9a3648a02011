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
      out.push_back(line);
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
  Comparison(const Switch& real, const Model& model)
      : service_{real.service()}, agent_{real.agent()}, model_{model} {}

  std::string difference() {
    service_.verify();
    agent_.verify();
    same("the library is running", service_.running(), model_.running);
    flows();
    groups();
    vrfs();
    entries();
    hardware();
    statusTables();
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

  void flows() {
    const auto views = service_.flows();
    same("the number of Corvex flows", views.size(), model_.corvexFlows.size());
    for (const Sim::FlowView& view : views) {
      const CorvexFlowState* const flow = model_.corvexFlows.find(*view.name);
      same("a Corvex flow " + *view.name, true, flow != nullptr);
      if (flow == nullptr) {
        return;
      }
      same("the match of " + *view.name, view.flow->match(), flow->match);
      same("the actions of " + *view.name, view.flow->actions(), flow->actions);
      same("the priority of " + *view.name, view.flow->priority().value(), flow->priority);
      same("the priority group of " + *view.name, view.flow->priorityGroupType(),
           flow->priorityGroup);
      same("the table type of " + *view.name, static_cast<std::int32_t>(view.flow->tableType()),
           flow->tableType);
      same("the entry id of " + *view.name, view.flow->entryId(), flow->entryId);
      same("the change count of " + *view.name, view.flow->changeCount(), flow->changeCount);
      same("the rest of " + *view.name,
           view.flow->persistent() && !view.flow->sendFlowRemoved() && view.flow->cookie() == 0 &&
               view.flow->idleTimeout() == 0 && view.flow->hardTimeout() == 0,
           true);
    }
  }

  void groups() {
    const auto views = service_.groups();
    same("the number of Corvex groups", views.size(), model_.corvexGroups.size());
    for (const auto* const view : views) {
      const std::string what = "Corvex group " + std::to_string(view->id());
      const auto group = model_.corvexGroups.find(view->id());
      same(what, true, group != model_.corvexGroups.end());
      if (group == model_.corvexGroups.end()) {
        return;
      }
      same("the type of " + what, static_cast<unsigned>(view->groupType()), group->second.type);
      same("the change count of " + what, view->changeCount(), group->second.changeCount);
      same("the flags of " + what, view->ready() && !view->deleted(), true);
      same(
          "the buckets of " + what,
          std::equal(view->bucket().begin(), view->bucket().end(), group->second.buckets.begin(),
                     group->second.buckets.end(),
                     [](const auto& real, const auto& actions) { return real.actions == actions; }),
          true);
    }
  }

  void vrfs() {
    const auto views = service_.vrfs();
    same("the number of VRFs", views.size(), model_.vrfs.size());
    for (const Sim::VrfView& view : views) {
      const auto found = model_.vrfs.find(view.vrf);
      const VrfState vrf = found == model_.vrfs.end() ? VrfState{} : found->second;
      const std::string what = "VRF " + std::to_string(view.vrf);
      same("the users of " + what, view.refCount, vrf.users.value_or(0));
      same("the creator of " + what, Handle{view.creator}, vrf.creator.value_or(0));
      same("the deletor of " + what, Handle{view.deletor}, vrf.deletor.value_or(0));
    }
    std::map<Handle, std::uint32_t> dependents;
    for (const Sim::DependentView& view : service_.dependents()) {
      dependents[view.handle] = view.vrf;
    }
    same("the entries that a VRF waits for", dependents, model_.dependents);
  }

  void entries() {
    std::map<Handle, std::string> real;
    for (const Sim::TableView& table : service_.entries()) {
      for (const Sim::EntryView& entry : table.entries) {
        real[entry.handle] = entryText(table.table, entry.indexed, entry.vrf);
      }
    }
    std::map<Handle, std::string> expected;
    for (const auto& table : model_.flowTables) {
      table.each([&](const FlowKey& key, const FlowRow& row) {
        const auto handle = model_.handleOf.find(key);
        const auto vrf = model_.vrfOf.find(key);
        expected[row.handle] = entryText(
            key.table, handle != model_.handleOf.end() && handle->second == row.handle,
            vrf == model_.vrfOf.end() || vrf->second == noVrf ? std::nullopt
                                                              : std::optional{vrf->second});
      });
    }
    same("the stored entries", real, expected);
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
    same("the status of the flows", flows, asMap(model_.flowStatus));
    same("the status of the groups", groups, asMap(model_.groupStatus));
    same("what is published", agent_.publishedFlows().size(),
         model_.published ? model_.flowStatus.size() : 0);
  }
  template <class Key>
  static std::map<Key, std::uint32_t> asMap(const SlotMap<Key, std::uint32_t>& statuses) {
    std::map<Key, std::uint32_t> all;
    statuses.each([&](const Key& key, std::uint32_t status) { all[key] = status; });
    return all;
  }

  void statusTables() {
    std::map<std::pair<unsigned, Handle>, StatusRow> real;
    for (unsigned table = 0; table < model_.flowTables.size(); ++table) {
      const auto status = service_.entityManager()->entity<Ostra::OstraStatus>(
          std::string{Sim::flowStatusDir} + "/" + std::to_string(table));
      Vasta::Hint hint;
      while (const auto* const row = status->table().next(hint)) {
        real[{table, row->entryHandle}] = {
            row->entryHandle, static_cast<std::uint32_t>(row->errorCode), row->deleted, row->genId};
      }
    }
    std::map<std::pair<unsigned, Handle>, StatusRow> expected;
    for (const auto& [key, row] : model_.statusRows) {
      expected[{key.table, row.handle}] = row;
    }
    same("the status tables", real, expected);
  }

  const Sim::Service& service_;
  const Sim::HwAgent& agent_;
  const Model& model_;
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
    for (std::size_t one = 0; std::holds_alternative<Batch>(history[at]);) {
      History fewer = history;
      auto& writes = std::get<Batch>(fewer[at]).writes;
      if (one >= writes.size()) {
        break;
      }
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
