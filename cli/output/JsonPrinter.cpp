// One JSON object a line, with its members in the order that docs/simulator.md gives.

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "cli/output/Hints.h"
#include "cli/output/JsonValues.h"
#include "cli/output/Printer.h"
#include "cli/output/TextValues.h"
#include "platform/Korm/Clock.h"

namespace Cli {
namespace {

Json object(std::string_view type) { return {{"type", type}}; }

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

const char* outcomeText(FlowPreview::Outcome outcome) {
  switch (outcome) {
    case FlowPreview::Outcome::inserts_:
      return "inserts";
    case FlowPreview::Outcome::modifies_:
      return "modifies";
    case FlowPreview::Outcome::refused_:
      return "refused";
    case FlowPreview::Outcome::outOfRange_:
      return "out-of-range";
    case FlowPreview::Outcome::nowhere_:
      break;
  }
  return "nowhere";
}

const char* stateText(Ostra::GroupNeed::State state) {
  switch (state) {
    case Ostra::GroupNeed::State::missing_:
      return "missing";
    case Ostra::GroupNeed::State::notReady_:
      return "not-ready";
    case Ostra::GroupNeed::State::ready_:
      break;
  }
  return "ready";
}

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

Json groupNeedToJson(const Ostra::GroupNeed& need) {
  Json json{{"id", need.id}, {"state", stateText(need.state)}};
  if (need.status) {
    json.add("status", static_cast<std::uint32_t>(*need.status));
  }
  return json;
}

Json previewToJson(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) {
  Json json{{"outcome", outcomeText(preview.outcome)}};
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
    Json line = object("result");
    line.add("op", text(result.op));
    line.add("kind", text(result.kind));
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
    out_ << line << '\n';
  }

  void report(const Sim::Report& report) override {
    Json line = object("report");
    line.add("handle", number(report.handle));
    line.add("code", static_cast<std::uint32_t>(report.code));
    line.add("message", report.message);
    out_ << line << '\n';
  }

  void error(std::string_view where, std::string_view message) override {
    Json line = object("error");
    line.add("where", where);
    line.add("message", message);
    out_ << line << '\n';
  }

  void failure(std::string_view where, std::string_view /*command*/,
               std::string_view message) override {
    error(where, message);
  }

  void note(std::string_view /*text*/) override {}

  void echo(std::string_view text) override {
    Json line = object("echo");
    line.add("text", text);
    out_ << line << '\n';
  }

  void help(std::span<const HelpEntry> commands, bool grammar) override {
    Json line = object("help");
    line.add("commands", arrayOf(commands, [grammar](const HelpEntry& command) {
               Json entry{{"name", command.name}, {"summary", command.summary}};
               if (grammar) {
                 entry.add("grammar", command.grammar);
               }
               return entry;
             }));
    out_ << line << '\n';
  }

  void counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) override {
    Json line = object("counter");
    line.add("handle", number(handle));
    line.add("packets", data.packets);
    line.add("bytes", data.bytes);
    out_ << line << '\n';
  }

  void flows(const std::vector<Sim::FlowView>& flows) override {
    Json line = object("flows");
    line.add("flows", arrayOf(flows, [](const Sim::FlowView& view) {
               return flowToJson(*view.name, *view.flow);
             }));
    out_ << line << '\n';
  }

  void groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) override {
    Json line = object("groups");
    line.add("groups", arrayOf(groups, [](const OpenFlowTable::GroupEntry* group) {
               return groupToJson(*group);
             }));
    out_ << line << '\n';
  }

  void vrfs(const std::vector<Sim::VrfView>& vrfs,
            const std::vector<Sim::DependentView>& dependents) override {
    Json line = object("vrfs");
    line.add("vrfs", arrayOf(vrfs, [](const Sim::VrfView& view) {
               return Json{{"vrf", view.vrf},
                           {"refCount", view.refCount},
                           {"creator", number(view.creator)},
                           {"deletor", number(view.deletor)}};
             }));
    line.add("dependents", arrayOf(dependents, [](const Sim::DependentView& view) {
               return Json{{"handle", number(view.handle)}, {"vrf", view.vrf}};
             }));
    out_ << line << '\n';
  }

  void entries(const std::vector<Sim::TableView>& tables) override {
    Json line = object("entries");
    line.add("tables", arrayOf(tables, [](const Sim::TableView& table) {
               return Json{{"table", table.table}, {"entries", arrayOf(table.entries, toJson)}};
             }));
    out_ << line << '\n';
  }

  void hw(const Sim::HwAgent& agent) override {
    Json line = object("hw");
    line.add(
        "flows", arrayOf(agent.publishedFlows(), [](const Sim::HwAgent::FlowView& view) {
          return Json{{"name", *view.name}, {"status", static_cast<std::uint32_t>(view.status)}};
        }));
    line.add("groups", arrayOf(agent.publishedGroups(), [](const Sim::HwAgent::GroupView& view) {
               return Json{{"id", view.id}, {"status", static_cast<std::uint32_t>(view.status)}};
             }));
    line.add("counterPoll", agent.counterPoll());
    out_ << line << '\n';
  }

  void trace(const std::vector<std::string>& lines) override {
    Json line = object("trace");
    line.add("lines", arrayOf(lines, [](const std::string& text) { return Json{text}; }));
    out_ << line << '\n';
  }

  void hint(std::string_view /*text*/) override {}

  void explanation(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) override {
    Json json{{"type", "explanation"}};
    json.addAll(previewToJson(entry, preview));
    out_ << json << '\n';
  }

  void storedFlow(const Sim::StoredFlow& flow) override {
    const Ostra::OstraConfigEntry& row = *flow.row;
    Json json{{"type", "entry"},
              {"handle", static_cast<std::uint64_t>(row.entryHandle)},
              {"table", flow.table},
              {"pending", flow.pending},
              {"storedAt", secondsToJson(flow.storedAt)},
              {"row", keyText(row.flowKey) + " -> " + entryActionsText(row)}};
    if (flow.flow != nullptr) {
      json.add("flow",
               flowToJson(Korm::Name{"flow-" + std::to_string(row.entryHandle)}, *flow.flow));
      json.add("configuredAt", secondsToJson(flow.configuredAt));
    }
    if (flow.hardware != nullptr) {
      json.add("status", static_cast<std::uint32_t>(flow.hardware->status()));
      json.add("programmedAt", secondsToJson(flow.programmedAt));
    }
    if (flow.preview) {
      json.add("explanation", previewToJson(row, *flow.preview));
    }
    out_ << json << '\n';
  }

  void audit(const Ostra::AuditReport& report) override {
    Json findings = Json::array();
    for (const Ostra::AuditFinding& finding : report.findings) {
      findings.push({{"kind", auditKindText(finding.kind)},
                     {"fault", finding.fault},
                     {"about", finding.about},
                     {"expected", finding.expected},
                     {"found", finding.found},
                     {"cause", finding.cause}});
    }
    out_ << Json{{"type", "audit"},           {"findings", std::move(findings)},
                 {"faults", report.faults()}, {"rows", report.rows},
                 {"flows", report.flows},     {"groups", report.groups},
                 {"seconds", report.seconds}}
         << '\n';
  }

  void pending(const std::vector<Sim::PendingView>& writes) override {
    Json array = Json::array();
    for (const Sim::PendingView& write : writes) {
      Json json{{"handle", static_cast<std::uint64_t>(write.handle)},
                {"op", text(write.op)},
                {"table", write.table},
                {"match", keyText(*write.key)},
                {"age", secondsToJson(Korm::currentTime() - write.since)}};
      if (write.status) {
        json.add("status", static_cast<std::uint32_t>(*write.status));
        json.add("words", flowStatusText(*write.status));
      }
      array.push(json);
    }
    out_ << Json{{"type", "pending"}, {"writes", std::move(array)}} << '\n';
  }

 private:
  std::ostream& out_;
};

}  // namespace

std::unique_ptr<Printer> jsonPrinter(std::ostream& out) {
  return std::make_unique<JsonPrinter>(out);
}

}  // namespace Cli
