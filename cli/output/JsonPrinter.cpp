// One JSON object a line, with its members in the order that docs/simulator.md gives.

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "Ostra/FlowUtil.h"
#include "cli/output/Hints.h"
#include "cli/output/JsonValues.h"
#include "cli/output/Printer.h"
#include "cli/output/TextValues.h"
#include "platform/Korm/Clock.h"
#include "platform/Korm/Text.h"

namespace Cli {
namespace {

std::uint64_t number(P4Runtime::EntryHandle handle) { return handle; }

template <class Items, class ToJson>
Json arrayOf(const Items& items, ToJson toJson) {
  Json array = Json::array();
  for (const auto& item : items) {
    array.push(toJson(item));
  }
  return array;
}

Json toJson(const Sim::EntryView& entry) {
  Json row{{"handle", number(entry.handle)}, {"indexed", entry.indexed}};
  if (entry.vrf) {
    row.add("vrf", *entry.vrf);
  }
  return row;
}

using Ostra::FlowPreview;
using Ostra::GroupNeed;

constexpr Korm::EnumTexts<FlowPreview::Outcome, 5> outcomes{{
    {FlowPreview::Outcome::inserts_, "inserts"},
    {FlowPreview::Outcome::modifies_, "modifies"},
    {FlowPreview::Outcome::refused_, "refused"},
    {FlowPreview::Outcome::outOfRange_, "out-of-range"},
    {FlowPreview::Outcome::nowhere_, "nowhere"},
}};

constexpr Korm::EnumTexts<GroupNeed::State, 3> groupStates{{
    {GroupNeed::State::missing_, "missing"},
    {GroupNeed::State::notReady_, "not-ready"},
    {GroupNeed::State::ready_, "ready"},
}};

Json vrfToJson(const Ostra::VrfChange& change) {
  Json json = Json::object();
  if (change.released) {
    json.add("released", *change.released);
    json.add("lastUser", change.lastUser);
  }
  if (change.taken) {
    json.add("taken", *change.taken);
    json.add("firstUser", change.firstUser);
  }
  return json;
}

Json groupNeedToJson(const GroupNeed& need) {
  Json json{{"id", need.id}, {"state", Korm::enumText(groupStates, need.state)}};
  if (need.status) {
    json.add("status", static_cast<std::uint32_t>(*need.status));
  }
  return json;
}

Json previewToJson(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) {
  Json json{{"outcome", Korm::enumText(outcomes, preview.outcome)}};
  if (preview.code) {
    json.add("code", static_cast<std::uint32_t>(*preview.code));
  }
  if (!preview.accepted()) {
    json.add("message", preview.message);
    json.add("step", stepText(preview.step));
  }
  if (const std::string text = hintText(entry, preview); !text.empty()) {
    json.add("hint", text);
  }
  if (preview.accepted()) {
    json.add("flow", {{"name", preview.name},
                      {"entryId", preview.entryId},
                      {"priority", preview.priority},
                      {"priorityGroup", preview.priorityGroupType},
                      {"tableType", static_cast<std::int32_t>(preview.tableType)},
                      {"match", matchToJson(preview.match)},
                      {"actions", actionsToJson(preview.actions)}});
  }
  if (preview.group) {
    json.add("group", groupNeedToJson(*preview.group));
  }
  if (const Json vrf = vrfToJson(preview.vrf); !vrf.isEmpty()) {
    json.add("vrf", vrf);
  }
  return json;
}

class JsonPrinter final : public Printer {
 public:
  explicit JsonPrinter(std::ostream& out) : out_{out} {}

  void result(const Sim::Result& result) override {
    Json line{{"type", "result"}, {"op", text(result.op)}, {"kind", text(result.kind)}};
    if (result.kind != Sim::Kind::flow_) {
      line.add("id", result.id);
    }
    if (number(result.handle) != 0) {
      line.add("handle", number(result.handle));
    }
    line.add("state", text(result.state));
    if (result.state == Sim::State::done_) {
      line.add("code", static_cast<std::uint32_t>(result.code));
    }
    line.add("message", result.message);
    print(line);
  }

  void report(const Sim::Report& report) override {
    print({{"type", "report"},
           {"handle", number(report.handle)},
           {"code", static_cast<std::uint32_t>(report.code)},
           {"message", report.message}});
  }

  void error(std::string_view where, std::string_view message) override {
    print({{"type", "error"}, {"where", where}, {"message", message}});
  }

  void failure(std::string_view where, std::string_view /*command*/,
               std::string_view message) override {
    error(where, message);
  }

  void note(std::string_view /*text*/) override {}

  void echo(std::string_view text) override { print({{"type", "echo"}, {"text", text}}); }

  void help(std::span<const HelpEntry> commands, bool grammar) override {
    print({{"type", "help"}, {"commands", arrayOf(commands, [grammar](const HelpEntry& command) {
                                Json entry{{"name", command.name}, {"summary", command.summary}};
                                if (grammar) {
                                  entry.add("grammar", command.grammar);
                                }
                                return entry;
                              })}});
  }

  void counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) override {
    print({{"type", "counter"},
           {"handle", number(handle)},
           {"packets", data.packets},
           {"bytes", data.bytes}});
  }

  void flows(const std::vector<Sim::FlowView>& flows) override {
    print({{"type", "flows"}, {"flows", arrayOf(flows, [](const Sim::FlowView& view) {
                                 return flowToJson(*view.name, *view.flow);
                               })}});
  }

  void groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) override {
    print({{"type", "groups"},
           {"groups", arrayOf(groups, [](const auto* group) { return groupToJson(*group); })}});
  }

  void vrfs(const std::vector<Sim::VrfView>& vrfs,
            const std::vector<Sim::DependentView>& dependents) override {
    print({{"type", "vrfs"},
           {"vrfs", arrayOf(vrfs,
                            [](const Sim::VrfView& view) {
                              return Json{{"vrf", view.vrf},
                                          {"refCount", view.refCount},
                                          {"creator", number(view.creator)},
                                          {"deletor", number(view.deletor)}};
                            })},
           {"dependents", arrayOf(dependents, [](const Sim::DependentView& view) {
              return Json{{"handle", number(view.handle)}, {"vrf", view.vrf}};
            })}});
  }

  void entries(const std::vector<Sim::TableView>& tables) override {
    print({{"type", "entries"},
           {"tables", arrayOf(tables, [](const Sim::TableView& table) {
              return Json{{"table", table.table}, {"entries", arrayOf(table.entries, toJson)}};
            })}});
  }

  void hw(const Sim::HwAgent& agent) override {
    print({{"type", "hw"},
           {"flows", arrayOf(agent.publishedFlows(),
                             [](const Sim::HwAgent::FlowView& view) {
                               return Json{{"name", *view.name},
                                           {"status", static_cast<std::uint32_t>(view.status)}};
                             })},
           {"groups",
            arrayOf(
                agent.publishedGroups(),
                [](const Sim::HwAgent::GroupView& view) {
                  return Json{{"id", view.id}, {"status", static_cast<std::uint32_t>(view.status)}};
                })},
           {"counterPoll", agent.counterPoll()}});
  }

  void trace(const std::vector<std::string>& lines) override {
    print({{"type", "trace"},
           {"lines", arrayOf(lines, [](const std::string& text) { return Json{text}; })}});
  }

  void hint(std::string_view /*text*/) override {}

  void explanation(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) override {
    Json json{{"type", "explanation"}};
    json.addAll(previewToJson(entry, preview));
    print(json);
  }

  void storedFlow(const Sim::StoredFlow& flow) override {
    const Ostra::OstraConfigEntry& row = *flow.row;
    Json json{{"type", "entry"},
              {"handle", number(row.entryHandle)},
              {"table", flow.table},
              {"pending", flow.pending},
              {"storedAt", secondsToJson(flow.storedAt)},
              {"row", keyText(row.flowKey) + " -> " + entryActionsText(row)}};
    if (flow.flow != nullptr) {
      json.add("flow", flowToJson(Ostra::buildFlowName(row.entryHandle), *flow.flow));
      json.add("configuredAt", secondsToJson(flow.configuredAt));
    }
    if (flow.hardware != nullptr) {
      json.add("status", static_cast<std::uint32_t>(flow.hardware->status()));
      json.add("programmedAt", secondsToJson(flow.programmedAt));
    }
    if (flow.preview) {
      json.add("explanation", previewToJson(row, *flow.preview));
    }
    print(json);
  }

  void audit(const Ostra::AuditReport& report) override {
    const auto toJson = [](const Ostra::AuditFinding& finding) {
      return Json{{"kind", auditKindText(finding.kind)},
                  {"fault", finding.fault},
                  {"about", finding.about},
                  {"expected", finding.expected},
                  {"found", finding.found},
                  {"cause", finding.cause}};
    };
    print({{"type", "audit"},
           {"findings", arrayOf(report.findings, toJson)},
           {"faults", report.faults()},
           {"rows", report.rows},
           {"flows", report.flows},
           {"groups", report.groups},
           {"seconds", report.seconds}});
  }

  void pending(const std::vector<Sim::PendingView>& writes) override {
    print({{"type", "pending"}, {"writes", arrayOf(writes, [](const Sim::PendingView& write) {
                                   Json json{
                                       {"handle", number(write.handle)},
                                       {"op", text(write.op)},
                                       {"table", write.table},
                                       {"match", keyText(*write.key)},
                                       {"age", secondsToJson(Korm::currentTime() - write.since)}};
                                   if (write.status) {
                                     json.add("status", static_cast<std::uint32_t>(*write.status));
                                     json.add("words", flowStatusText(*write.status));
                                   }
                                   return json;
                                 })}});
  }

 private:
  void print(const Json& line) { out_ << line << '\n'; }

  std::ostream& out_;
};

}  // namespace

std::unique_ptr<Printer> jsonPrinter(std::ostream& out) {
  return std::make_unique<JsonPrinter>(out);
}

}  // namespace Cli
