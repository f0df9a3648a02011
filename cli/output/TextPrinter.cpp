#include "cli/output/TextPrinter.h"

#include <cstdint>
#include <ostream>
#include <string>

#include "cli/output/TextTable.h"
#include "cli/output/TextValues.h"

namespace Cli {
namespace {

constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view yellow = "\x1b[33m";
constexpr std::string_view plain = "\x1b[0m";

std::string numberText(std::uint64_t number) { return std::to_string(number); }

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

}  // namespace

TextPrinter::TextPrinter(std::ostream& out, std::ostream& errors, TextStyle style)
    : out_{out}, errors_{errors}, style_{style} {}

std::string TextPrinter::colored(Color color, std::string_view text) const {
  if (!style_.color) {
    return std::string{text};
  }
  std::string result{color == Color::good_ ? green : color == Color::bad_ ? red : yellow};
  return result.append(text).append(plain);
}

std::string TextPrinter::outcome(P4Runtime::ErrorCode code, std::string_view message) const {
  if (code == P4Runtime::ErrorCode::success_) {
    return colored(Color::good_, "done");
  }
  const std::string reason = message.empty() ? errorText(code) : std::string{message};
  return colored(Color::bad_, "refused") + " with code " +
         std::to_string(static_cast<std::uint32_t>(code)) + ": " + reason;
}

void TextPrinter::result(const Sim::Result& result) {
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

void TextPrinter::report(const Sim::Report& report) {
  out_ << "report for entry " << report.handle << ": " << outcome(report.code, report.message)
       << '\n';
}

void TextPrinter::error(std::string_view where, std::string_view message) {
  out_.flush();
  errors_ << where << ": " << (style_.errorColor ? red : "") << "error"
          << (style_.errorColor ? plain : "") << ": " << message << '\n';
  errors_.flush();
}

void TextPrinter::failure(std::string_view /*where*/, std::string_view command,
                          std::string_view message) {
  out_ << command << ": " << colored(Color::bad_, "failed") << " in the library: " << message
       << '\n';
}

void TextPrinter::note(std::string_view text) { out_ << text << '\n'; }

void TextPrinter::echo(std::string_view text) { out_ << text << '\n'; }

void TextPrinter::help(std::span<const HelpEntry> commands, bool grammar) {
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

void TextPrinter::counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) {
  out_ << "counter of entry " << handle << ": " << data.packets << " packets, " << data.bytes
       << " bytes\n";
}

void TextPrinter::flows(const std::vector<Sim::FlowView>& flows) {
  TextTable table{{"name", ">entry", ">priority", ">priority-group", ">table-type", ">changed",
                   "match", "actions"}};
  for (const Sim::FlowView& view : flows) {
    const OpenFlowTable::FlowEntry& flow = *view.flow;
    table.rowIs({*view.name, numberText(flow.entryId()), std::to_string(flow.priority().value()),
                 numberText(flow.priorityGroupType()),
                 std::to_string(static_cast<std::int32_t>(flow.tableType())),
                 secondsText(flow.changeCount()), matchText(flow.match()),
                 actionsText(flow.actions())});
  }
  printTable(out_, "flows", flows.size(), table);
}

void TextPrinter::groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) {
  TextTable table{{">id", "type", "ready", ">changed", ">bucket", "actions"}};
  for (const OpenFlowTable::GroupEntry* group : groups) {
    const std::string state = group->deleted() ? "deleted" : yesNo(group->ready());
    std::vector<std::string> cells{numberText(group->id()),
                                   groupTypeText(group->groupType()),
                                   state,
                                   secondsText(group->changeCount()),
                                   "-",
                                   "-"};
    std::size_t number = 0;
    for (const OpenFlowTable::Bucket& bucket : group->bucket()) {
      cells[4] = numberText(++number);
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

void TextPrinter::vrfs(const std::vector<Sim::VrfView>& vrfs,
                       const std::vector<Sim::DependentView>& dependents) {
  TextTable table{{">vrf", ">entries", ">creator", ">deletor"}};
  for (const Sim::VrfView& view : vrfs) {
    table.rowIs({numberText(view.vrf), numberText(view.refCount), handleText(view.creator),
                 handleText(view.deletor)});
  }
  printTable(out_, "VRFs", vrfs.size(), table);
  if (!dependents.empty()) {
    TextTable waiting{{">entry", ">for VRF"}};
    for (const Sim::DependentView& view : dependents) {
      waiting.rowIs({handleText(view.handle), numberText(view.vrf)});
    }
    printTable(out_, "entries that a VRF waits for", dependents.size(), waiting);
  }
}

void TextPrinter::entries(const std::vector<Sim::TableView>& tables) {
  TextTable table{{">table", ">entry", "indexed", ">vrf"}};
  std::size_t rows = 0;
  for (const Sim::TableView& view : tables) {
    rows += view.entries.size();
    for (const Sim::EntryView& entry : view.entries) {
      table.rowIs({numberText(view.table), handleText(entry.handle), yesNo(entry.indexed),
                   entry.vrf ? numberText(*entry.vrf) : "-"});
    }
  }
  printTable(out_, "flow entries", rows, table);
}

void TextPrinter::hw(const Sim::HwAgent& agent) {
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
    groupTable.rowIs({numberText(view.id), groupStatusText(view.status)});
  }
  printTable(out_, "hardware groups, " + capacityText(agent.groupCapacity()), groups.size(),
             groupTable);
}

void TextPrinter::trace(const std::vector<std::string>& lines) {
  out_ << "trace: " << lines.size() << '\n';
  for (const std::string& line : lines) {
    out_ << "  " << printable(line) << '\n';
  }
}

}  // namespace Cli
