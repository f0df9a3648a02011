// Text for people: a line per result, aligned tables.

#include <cstdint>
#include <ostream>
#include <string>

#include "cli/output/Hints.h"
#include "cli/output/Printer.h"
#include "cli/output/TextTable.h"
#include "cli/output/TextValues.h"
#include "platform/Korm/Clock.h"

namespace Cli {
namespace {

using Ostra::AuditFinding;
using Ostra::FlowPreview;
using Ostra::FlowStep;

constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view yellow = "\x1b[33m";
constexpr std::string_view plain = "\x1b[0m";

// "-" for none.
std::string handleText(P4Runtime::EntryHandle handle) {
  const std::uint64_t number = handle;
  return number == 0 ? "-" : std::to_string(number);
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }

// "flows: 3", and the table under it unless that is empty.
void printTable(std::ostream& out, std::string_view title, std::size_t rows,
                const TextTable& table) {
  out << title << ": " << rows << '\n';
  if (!table.empty()) {
    table.print(out);
  }
}

std::string capacityText(const std::optional<std::size_t>& capacity) {
  return capacity ? "room for " + std::to_string(*capacity) : "no limit";
}

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

class TextPrinter final : public Printer {
 public:
  TextPrinter(std::ostream& out, std::ostream& errors, TextStyle style)
      : out_{out}, errors_{errors}, style_{style} {}

  void result(const Sim::Result& result) override {
    out_ << text(result.op) << ' ' << text(result.kind);
    if (result.kind != Sim::Kind::flow_) {
      out_ << ' ' << result.id;
    }
    if (const std::uint64_t handle = result.handle; handle != 0) {
      out_ << " (entry " << handle << ')';
    }
    out_ << ": ";
    switch (result.state) {
      case Sim::State::done_:
        out_ << outcome(result.code, result.message);
        break;
      case Sim::State::pending_:
        out_ << colored(Color::waiting_, "pending") << ", the hardware has not reported yet";
        break;
      case Sim::State::rejected_:
        out_ << colored(Color::bad_, "rejected") << " by the service: " << result.message;
        break;
      case Sim::State::failed_:
        out_ << colored(Color::bad_, "failed") << " in the library: " << result.message;
        break;
      case Sim::State::stored_:
        out_ << colored(Color::waiting_, "stored") << ", the library is stopped";
        break;
    }
    out_ << '\n';
  }

  void report(const Sim::Report& report) override {
    out_ << "report for entry " << report.handle << ": " << outcome(report.code, report.message)
         << '\n';
  }

  void error(std::string_view where, std::string_view message) override {
    out_.flush();
    errors_ << where << ": " << (style_.errorColor ? red : "") << "error"
            << (style_.errorColor ? plain : "") << ": " << message << '\n';
    errors_.flush();
  }

  void failure(std::string_view /*where*/, std::string_view command,
               std::string_view message) override {
    out_ << command << ": " << colored(Color::bad_, "failed") << " in the library: " << message
         << '\n';
  }

  void note(std::string_view text) override { out_ << text << '\n'; }

  void echo(std::string_view text) override { out_ << text << '\n'; }

  void help(std::span<const HelpEntry> commands, bool grammar) override {
    if (grammar) {
      for (const HelpEntry& command : commands) {
        out_ << command.grammar << "\n    " << command.summary << '\n';
      }
      return;
    }
    TextTable table{{"command", "effect"}};
    for (const HelpEntry& command : commands) {
      table.rowIs({std::string{command.name}, std::string{command.summary}});
    }
    table.print(out_);
  }

  void counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) override {
    out_ << "counter of entry " << handle << ": " << data.packets << " packets, " << data.bytes
         << " bytes\n";
  }

  void flows(const std::vector<Sim::FlowView>& flows) override {
    TextTable table{{"name", ">entry", ">priority", ">priority-group", ">table-type", ">changed",
                     "match", "actions"}};
    for (const Sim::FlowView& view : flows) {
      const OpenFlowTable::FlowEntry& flow = *view.flow;
      table.rowIs(
          {*view.name, std::to_string(flow.entryId()), std::to_string(flow.priority().value()),
           std::to_string(flow.priorityGroupType()),
           std::to_string(static_cast<std::int32_t>(flow.tableType())),
           secondsText(flow.changeCount()), matchText(flow.match()), actionsText(flow.actions())});
    }
    printTable(out_, "flows", flows.size(), table);
  }

  void groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) override {
    TextTable table{{">id", "type", "ready", ">changed", ">bucket", "actions"}};
    for (const OpenFlowTable::GroupEntry* group : groups) {
      const std::string state = group->deleted() ? "deleted" : yesNo(group->ready());
      std::vector<std::string> cells{std::to_string(group->id()),
                                     groupTypeText(group->groupType()),
                                     state,
                                     secondsText(group->changeCount()),
                                     "-",
                                     "-"};
      std::size_t number = 0;
      for (const OpenFlowTable::Bucket& bucket : group->bucket()) {
        cells[4] = std::to_string(++number);
        cells[5] = actionsText(bucket.actions);
        table.rowIs(cells);
        cells = {"", "", "", "", "", ""};
      }
      if (number == 0) {
        table.rowIs(cells);
      }
    }
    printTable(out_, "groups", groups.size(), table);
  }

  void vrfs(const std::vector<Sim::VrfView>& vrfs,
            const std::vector<Sim::DependentView>& dependents) override {
    TextTable table{{">vrf", ">entries", ">creator", ">deletor"}};
    for (const Sim::VrfView& view : vrfs) {
      table.rowIs({std::to_string(view.vrf), std::to_string(view.refCount),
                   handleText(view.creator), handleText(view.deletor)});
    }
    printTable(out_, "VRFs", vrfs.size(), table);
    if (!dependents.empty()) {
      TextTable waiting{{">entry", ">for VRF"}};
      for (const Sim::DependentView& view : dependents) {
        waiting.rowIs({handleText(view.handle), std::to_string(view.vrf)});
      }
      printTable(out_, "entries that a VRF waits for", dependents.size(), waiting);
    }
  }

  void entries(const std::vector<Sim::TableView>& tables) override {
    TextTable table{{">table", ">entry", "indexed", ">vrf"}};
    std::size_t rows = 0;
    for (const Sim::TableView& view : tables) {
      rows += view.entries.size();
      for (const Sim::EntryView& entry : view.entries) {
        table.rowIs({std::to_string(view.table), handleText(entry.handle), yesNo(entry.indexed),
                     entry.vrf ? std::to_string(*entry.vrf) : "-"});
      }
    }
    printTable(out_, "flow entries", rows, table);
  }

  void hw(const Sim::HwAgent& agent) override {
    out_ << "hardware: " << (agent.automatic() ? "automatic" : "manual") << ", " << agent.waiting()
         << " waiting, counters " << (agent.counterPoll() ? "polled" : "not polled")
         << (agent.published() ? "" : ", status withdrawn") << '\n';
    const auto flows = agent.publishedFlows();
    TextTable flowTable{{"name", "status"}};
    for (const Sim::HwAgent::FlowView& view : flows) {
      flowTable.rowIs({*view.name, flowStatusText(view.status)});
    }
    printTable(out_, "hardware flows, " + capacityText(agent.flowCapacity()), flows.size(),
               flowTable);
    const auto groups = agent.publishedGroups();
    TextTable groupTable{{">id", "status"}};
    for (const Sim::HwAgent::GroupView& view : groups) {
      groupTable.rowIs({std::to_string(view.id), groupStatusText(view.status)});
    }
    printTable(out_, "hardware groups, " + capacityText(agent.groupCapacity()), groups.size(),
               groupTable);
  }

  void trace(const std::vector<std::string>& lines) override {
    out_ << "trace: " << lines.size() << '\n';
    for (const std::string& line : lines) {
      out_ << "  " << printable(line) << '\n';
    }
  }

  void hint(std::string_view text) override { out_ << "  hint: " << text << '\n'; }

  void explanation(const Ostra::OstraConfigEntry& entry, const FlowPreview& preview) override {
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

  void storedFlow(const Sim::StoredFlow& flow) override {
    const Ostra::OstraConfigEntry& row = *flow.row;
    out_ << "entry " << row.entryHandle << " of table " << static_cast<unsigned>(flow.table)
         << (flow.pending ? ", waiting for the hardware\n" : "\n");
    line(out_, "row",
         "priority=" + std::to_string(row.flowKey.priority()) + " " + keyText(row.flowKey) +
             " -> " + entryActionsText(row));
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

  void audit(const Ostra::AuditReport& report) override {
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
         << " groups; " << report.faults() << " faults, "
         << report.findings.size() - report.faults() << " expected; "
         << (report.seconds == 0 ? "0" : secondsText(report.seconds * 1000)) << " ms\n";
  }

  void pending(const std::vector<Sim::PendingView>& writes) override {
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

 private:
  enum class Color { good_, bad_, waiting_ };

  [[nodiscard]] std::string colored(Color color, std::string_view text) const {
    if (!style_.color) {
      return std::string{text};
    }
    std::string result{color == Color::good_ ? green : color == Color::bad_ ? red : yellow};
    return result.append(text).append(plain);
  }

  [[nodiscard]] std::string outcome(P4Runtime::ErrorCode code, std::string_view message) const {
    if (code == P4Runtime::ErrorCode::success_) {
      return colored(Color::good_, "done");
    }
    const std::string reason = message.empty() ? errorText(code) : std::string{message};
    return colored(Color::bad_, "refused") + " with code " +
           std::to_string(static_cast<std::uint32_t>(code)) + ": " + reason;
  }

  std::ostream& out_;
  std::ostream& errors_;
  const TextStyle style_;
};

}  // namespace

std::unique_ptr<Printer> textPrinter(std::ostream& out, std::ostream& errors, TextStyle style) {
  return std::make_unique<TextPrinter>(out, errors, style);
}

}  // namespace Cli
