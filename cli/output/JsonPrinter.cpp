#include "cli/output/JsonPrinter.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "cli/output/JsonValues.h"

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

}  // namespace

void JsonPrinter::result(const Sim::Result& result) {
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

void JsonPrinter::report(const Sim::Report& report) {
  Json line = object("report");
  line.add("handle", number(report.handle));
  line.add("code", static_cast<std::uint32_t>(report.code));
  line.add("message", report.message);
  out_ << line << '\n';
}

void JsonPrinter::error(std::string_view where, std::string_view message) {
  Json line = object("error");
  line.add("where", where);
  line.add("message", message);
  out_ << line << '\n';
}

void JsonPrinter::failure(std::string_view where, std::string_view /*command*/,
                          std::string_view message) {
  error(where, message);
}

void JsonPrinter::note(std::string_view /*text*/) {}

void JsonPrinter::echo(std::string_view text) {
  Json line = object("echo");
  line.add("text", text);
  out_ << line << '\n';
}

void JsonPrinter::help(std::span<const HelpEntry> commands, bool grammar) {
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

void JsonPrinter::counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) {
  Json line = object("counter");
  line.add("handle", number(handle));
  line.add("packets", data.packets);
  line.add("bytes", data.bytes);
  out_ << line << '\n';
}

void JsonPrinter::flows(const std::vector<Sim::FlowView>& flows) {
  Json line = object("flows");
  line.add("flows", arrayOf(flows, [](const Sim::FlowView& view) {
             return flowToJson(*view.name, *view.flow);
           }));
  out_ << line << '\n';
}

void JsonPrinter::groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) {
  Json line = object("groups");
  line.add("groups", arrayOf(groups, [](const OpenFlowTable::GroupEntry* group) {
             return groupToJson(*group);
           }));
  out_ << line << '\n';
}

void JsonPrinter::vrfs(const std::vector<Sim::VrfView>& vrfs,
                       const std::vector<Sim::DependentView>& dependents) {
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

void JsonPrinter::entries(const std::vector<Sim::TableView>& tables) {
  Json line = object("entries");
  line.add("tables", arrayOf(tables, [](const Sim::TableView& table) {
             return Json{{"table", table.table}, {"entries", arrayOf(table.entries, toJson)}};
           }));
  out_ << line << '\n';
}

void JsonPrinter::hw(const Sim::HwAgent& agent) {
  Json line = object("hw");
  line.add("flows", arrayOf(agent.publishedFlows(), [](const Sim::HwAgent::FlowView& view) {
             return Json{{"name", *view.name}, {"status", static_cast<std::uint32_t>(view.status)}};
           }));
  line.add("groups", arrayOf(agent.publishedGroups(), [](const Sim::HwAgent::GroupView& view) {
             return Json{{"id", view.id}, {"status", static_cast<std::uint32_t>(view.status)}};
           }));
  line.add("counterPoll", agent.counterPoll());
  out_ << line << '\n';
}

void JsonPrinter::trace(const std::vector<std::string>& lines) {
  Json line = object("trace");
  line.add("lines", arrayOf(lines, [](const std::string& text) { return Json{text}; }));
  out_ << line << '\n';
}

}  // namespace Cli
