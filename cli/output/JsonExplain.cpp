// What JsonPrinter says of writes before and after they are made.

#include <ostream>
#include <string>

#include "cli/output/Hints.h"
#include "cli/output/JsonPrinter.h"
#include "cli/output/JsonValues.h"
#include "cli/output/TextValues.h"
#include "platform/Korm/Clock.h"

namespace Cli {
namespace {

using Ostra::FlowPreview;
using Ostra::FlowStep;

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

}  // namespace

void JsonPrinter::hint(std::string_view /*text*/) {}

void JsonPrinter::explanation(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) {
  Json json{{"type", "explanation"}};
  json.addAll(previewToJson(entry, preview));
  out_ << json << '\n';
}

void JsonPrinter::storedFlow(const Sim::StoredFlow& flow) {
  const Ostra::OstraConfigEntry& row = *flow.row;
  Json json{{"type", "entry"},
            {"handle", static_cast<std::uint64_t>(row.entryHandle)},
            {"table", flow.table},
            {"pending", flow.pending},
            {"storedAt", secondsToJson(flow.storedAt)},
            {"row", keyText(row.flowKey) + " -> " + entryActionsText(row)}};
  if (flow.flow != nullptr) {
    json.add("flow", flowToJson(Korm::Name{"flow-" + std::to_string(row.entryHandle)}, *flow.flow));
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

void JsonPrinter::audit(const Ostra::AuditReport& report) {
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

void JsonPrinter::pending(const std::vector<Sim::PendingView>& writes) {
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
    array.push(std::move(json));
  }
  out_ << Json{{"type", "pending"}, {"writes", std::move(array)}} << '\n';
}

}  // namespace Cli
