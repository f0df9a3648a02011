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
    array.push_back(toJson(item));
  }
  return array;
}

Json toJson(const Sim::EntryView& entry) {
  Json row{{"handle", number(entry.handle)}, {"indexed", entry.indexed}};
  if (entry.vrf) {
    row["vrf"] = *entry.vrf;
  }
  return row;
}

}  // namespace

void JsonPrinter::result(const Sim::Result& result) {
  Json line = object("result");
  line["op"] = text(result.op);
  line["kind"] = text(result.kind);
  if (result.kind != Sim::Kind::flow_) {
    line["id"] = result.id;
  }
  if (number(result.handle) != 0) {
    line["handle"] = number(result.handle);
  }
  line["state"] = text(result.state);
  if (result.state == Sim::State::done_) {
    line["code"] = static_cast<std::uint32_t>(result.code);
  }
  line["message"] = result.message;
  printJson(out_, line);
}

void JsonPrinter::report(const Sim::Report& report) {
  Json line = object("report");
  line["handle"] = number(report.handle);
  line["code"] = static_cast<std::uint32_t>(report.code);
  line["message"] = report.message;
  printJson(out_, line);
}

void JsonPrinter::error(std::string_view where, std::string_view message) {
  Json line = object("error");
  line["where"] = where;
  line["message"] = message;
  printJson(out_, line);
}

void JsonPrinter::failure(std::string_view where, std::string_view /*command*/,
                          std::string_view message) {
  error(where, message);
}

void JsonPrinter::note(std::string_view /*text*/) {}

void JsonPrinter::echo(std::string_view text) {
  Json line = object("echo");
  line["text"] = text;
  printJson(out_, line);
}

void JsonPrinter::help(std::span<const HelpEntry> commands, bool grammar) {
  Json line = object("help");
  line["commands"] = arrayOf(commands, [grammar](const HelpEntry& command) {
    Json entry{{"name", command.name}, {"summary", command.summary}};
    if (grammar) {
      entry["grammar"] = command.grammar;
    }
    return entry;
  });
  printJson(out_, line);
}

void JsonPrinter::counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) {
  Json line = object("counter");
  line["handle"] = number(handle);
  line["packets"] = data.packets;
  line["bytes"] = data.bytes;
  printJson(out_, line);
}

void JsonPrinter::flows(const std::vector<Sim::FlowView>& flows) {
  Json line = object("flows");
  line["flows"] =
      arrayOf(flows, [](const Sim::FlowView& view) { return flowToJson(*view.name, *view.flow); });
  printJson(out_, line);
}

void JsonPrinter::groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) {
  Json line = object("groups");
  line["groups"] =
      arrayOf(groups, [](const OpenFlowTable::GroupEntry* group) { return groupToJson(*group); });
  printJson(out_, line);
}

void JsonPrinter::vrfs(const std::vector<Sim::VrfView>& vrfs,
                       const std::vector<Sim::DependentView>& dependents) {
  Json line = object("vrfs");
  line["vrfs"] = arrayOf(vrfs, [](const Sim::VrfView& view) {
    return Json{{"vrf", view.vrf},
                {"refCount", view.refCount},
                {"creator", number(view.creator)},
                {"deletor", number(view.deletor)}};
  });
  line["dependents"] = arrayOf(dependents, [](const Sim::DependentView& view) {
    return Json{{"handle", number(view.handle)}, {"vrf", view.vrf}};
  });
  printJson(out_, line);
}

void JsonPrinter::entries(const std::vector<Sim::TableView>& tables) {
  Json line = object("entries");
  line["tables"] = arrayOf(tables, [](const Sim::TableView& table) {
    return Json{{"table", table.table}, {"entries", arrayOf(table.entries, toJson)}};
  });
  printJson(out_, line);
}

void JsonPrinter::hw(const Sim::HwAgent& agent) {
  Json line = object("hw");
  line["flows"] = arrayOf(agent.publishedFlows(), [](const Sim::HwAgent::FlowView& view) {
    return Json{{"name", *view.name}, {"status", static_cast<std::uint32_t>(view.status)}};
  });
  line["groups"] = arrayOf(agent.publishedGroups(), [](const Sim::HwAgent::GroupView& view) {
    return Json{{"id", view.id}, {"status", static_cast<std::uint32_t>(view.status)}};
  });
  line["counterPoll"] = agent.counterPoll();
  printJson(out_, line);
}

void JsonPrinter::trace(const std::vector<std::string>& lines) {
  Json line = object("trace");
  line["lines"] = lines;
  printJson(out_, line);
}

}  // namespace Cli
