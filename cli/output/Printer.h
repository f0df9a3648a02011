// How ostra-sim prints the results of commands, as text or as JSON.
//
// Threads: one thread.
// Ownership: a printer writes to a stream of its host, and neither flushes nor closes it.
#pragma once

#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/P4Runtime/Counter.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"

namespace Cli {

// A command as `help` shows it.
struct HelpEntry {
  std::string_view name;
  std::string_view summary;
  std::string grammar;
};

class Printer {
 public:
  Printer() = default;
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;
  virtual ~Printer() = default;

  // The results of writes.
  virtual void result(const Sim::Result& result) = 0;
  virtual void report(const Sim::Report& report) = 0;

  // A command that makes no sense; `where` is FILE:LINE.
  virtual void error(std::string_view where, std::string_view message) = 0;
  // A command that was understood and failed.
  virtual void failure(std::string_view where, std::string_view command,
                       std::string_view message) = 0;
  // A message for people only.
  virtual void note(std::string_view text) = 0;
  virtual void echo(std::string_view text) = 0;
  // Names and summaries of many commands, or the whole grammar of a few.
  virtual void help(std::span<const HelpEntry> commands, bool grammar) = 0;

  virtual void counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) = 0;
  virtual void flows(const std::vector<Sim::FlowView>& flows) = 0;
  virtual void groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) = 0;
  virtual void vrfs(const std::vector<Sim::VrfView>& vrfs,
                    const std::vector<Sim::DependentView>& dependents) = 0;
  virtual void entries(const std::vector<Sim::TableView>& tables) = 0;
  virtual void hw(const Sim::HwAgent& agent) = 0;
  virtual void trace(const std::vector<std::string>& lines) = 0;

  // Writes before and after they are made.
  // What would be accepted instead of the refused write; for people only.
  virtual void hint(std::string_view text) = 0;
  virtual void explanation(const Ostra::OstraConfigEntry& entry,
                           const Ostra::FlowPreview& preview) = 0;
  virtual void storedFlow(const Sim::StoredFlow& flow) = 0;
  virtual void audit(const Ostra::AuditReport& report) = 0;
  virtual void pending(const std::vector<Sim::PendingView>& writes) = 0;
};

struct TextStyle {
  bool color = false;       // of what goes to `out`
  bool errorColor = false;  // of what goes to `errors`
};
// Text for people. Results go to `out`. Bad commands go to `errors`, and `out` is flushed first.
// Requires: the streams outlive the printer.
[[nodiscard]] std::unique_ptr<Printer> textPrinter(std::ostream& out, std::ostream& errors,
                                                   TextStyle style);

// One JSON object a line, with its members in the order that docs/simulator.md gives. Bytes that
// are not UTF-8 are replaced, so that every line is JSON.
// Requires: the stream outlives the printer.
[[nodiscard]] std::unique_ptr<Printer> jsonPrinter(std::ostream& out);

}  // namespace Cli
