// What TextPrinter says of writes before and after they are made.

#include <ostream>
#include <string>

#include "cli/output/Hints.h"
#include "cli/output/TextPrinter.h"
#include "cli/output/TextTable.h"
#include "cli/output/TextValues.h"
#include "platform/Korm/Clock.h"

namespace Cli {
namespace {

using Ostra::AuditFinding;
using Ostra::FlowPreview;
using Ostra::FlowStep;

std::string checksText(const FlowPreview& preview) {
  std::string text;
  for (unsigned number = 0; number <= static_cast<unsigned>(preview.step); ++number) {
    const auto step = static_cast<FlowStep>(number);
    if (isCheck(step)) {
      text.append(text.empty() ? "" : ", ").append(stepText(step));
      text.append(step == preview.step ? " (refuses)" : "");
    }
  }
  return text;
}

std::string vrfChangeText(const Ostra::VrfChange& change) {
  std::string text;
  if (change.released) {
    text = "leaves VRF " + std::to_string(*change.released) +
           (change.lastUser ? " as its last user" : "");
  }
  if (change.taken) {
    text += (text.empty() ? "" : ", ") + ("enters VRF " + std::to_string(*change.taken)) +
            (change.firstUser ? " as its first user" : "");
  }
  return text;
}

std::string groupNeedText(const Ostra::GroupNeed& need) {
  const std::string name = std::to_string(need.id);
  switch (need.state) {
    case Ostra::GroupNeed::State::missing_:
      return name + ", which is missing";
    case Ostra::GroupNeed::State::notReady_:
      return name + ", which is not ready" +
             (need.status ? ": " + groupStatusText(*need.status) : "");
    case Ostra::GroupNeed::State::ready_:
      break;
  }
  return name + ", which is ready";
}

void line(std::ostream& out, std::string_view title, const std::string& text) {
  if (!text.empty()) {
    out << "  " << title << std::string(10 - title.size(), ' ') << text << '\n';
  }
}

std::string atText(double seconds) {
  return seconds == 0 ? std::string{} : "at " + secondsText(seconds);
}

}  // namespace

void TextPrinter::hint(std::string_view text) { out_ << "  hint: " << text << '\n'; }

void TextPrinter::explanation(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) {
  out_ << "writing it now ";
  switch (preview.outcome) {
    case FlowPreview::Outcome::inserts_:
      out_ << colored(Color::good_, "inserts") << " the Corvex flow " << preview.name << '\n';
      break;
    case FlowPreview::Outcome::modifies_:
      out_ << colored(Color::good_, "modifies") << " the Corvex flow " << preview.name << '\n';
      break;
    case FlowPreview::Outcome::refused_:
      out_ << "is "
           << outcome(preview.code.value_or(P4Runtime::ErrorCode::invalidArgument_),
                      preview.message)
           << '\n';
      break;
    case FlowPreview::Outcome::outOfRange_:
      out_ << colored(Color::bad_, "fails") << " in the library: " << preview.message << '\n';
      break;
    case FlowPreview::Outcome::nowhere_:
      out_ << "does nothing: there is no Corvex configuration\n";
      return;
  }
  if (const std::string text = hintText(entry, preview); !text.empty()) {
    hint(text);
  }
  line(out_, "checks", checksText(preview));
  if (preview.accepted()) {
    line(out_, "match", matchText(preview.match));
    line(out_, "actions", actionsText(preview.actions));
    line(out_, "place",
         "priority " + std::to_string(preview.priority) + ", priority group " +
             std::to_string(preview.priorityGroupType) + ", table type " +
             std::to_string(static_cast<std::int32_t>(preview.tableType)));
  }
  if (preview.group) {
    line(out_, "group", groupNeedText(*preview.group));
  }
  line(out_, "VRF", vrfChangeText(preview.vrf));
}

void TextPrinter::storedFlow(const Sim::StoredFlow& flow) {
  const Ostra::OstraConfigEntry& row = *flow.row;
  out_ << "entry " << row.entryHandle << " of table " << static_cast<unsigned>(flow.table)
       << (flow.pending ? ", waiting for the hardware\n" : "\n");
  line(out_, "row",
       "priority=" + std::to_string(row.flowKey.priority()) + " " + keyText(row.flowKey) + " -> " +
           entryActionsText(row));
  line(out_, "", atText(flow.storedAt));
  if (flow.flow == nullptr) {
    line(out_, "Corvex", "nothing");
  } else {
    line(out_, "Corvex",
         matchText(flow.flow->match()) + " -> " + actionsText(flow.flow->actions()));
    line(out_, "", atText(flow.configuredAt));
  }
  if (flow.hardware == nullptr) {
    line(out_, "hardware", "nothing");
  } else {
    line(out_, "hardware", flowStatusText(flow.hardware->status()));
    line(out_, "", atText(flow.programmedAt));
  }
  if (flow.preview) {
    explanation(row, *flow.preview);
  }
}

void TextPrinter::audit(const Ostra::AuditReport& report) {
  const Ostra::AuditFinding* last = nullptr;
  for (const AuditFinding& finding : report.findings) {
    if (last == nullptr || last->kind != finding.kind) {
      out_ << auditKindText(finding.kind) << '\n';
    }
    last = &finding;
    out_ << "  " << (finding.fault ? colored(Color::bad_, "fault   ") : "expected") << "  "
         << finding.about << ": " << finding.found << ", in place of " << finding.expected << "\n"
         << "            " << finding.cause << '\n';
  }
  out_ << "audit: " << report.rows << " rows, " << report.flows << " flows, " << report.groups
       << " groups; " << report.faults() << " faults, " << report.findings.size() - report.faults()
       << " expected; " << (report.seconds == 0 ? "0" : secondsText(report.seconds * 1000))
       << " ms\n";
}

void TextPrinter::pending(const std::vector<Sim::PendingView>& writes) {
  TextTable table{{">entry", "write", ">table", ">priority", "match", "status", ">age"}};
  for (const Sim::PendingView& write : writes) {
    table.rowIs({std::to_string(write.handle), std::string{text(write.op)},
                 std::to_string(write.table), std::to_string(write.key->priority()),
                 keyText(*write.key), write.status ? flowStatusText(*write.status) : "none",
                 secondsText(Korm::currentTime() - write.since)});
  }
  out_ << "pending: " << writes.size() << '\n';
  if (!table.empty()) {
    table.print(out_);
  }
}

}  // namespace Cli
