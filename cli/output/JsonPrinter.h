// One JSON object a line.
//
// Threads: one thread.
// Invariant: members are in the order that docs/simulator.md gives. Bytes that are not UTF-8 are
// replaced, so that every line is JSON.
#pragma once

#include <iosfwd>

#include "cli/output/Printer.h"

namespace Cli {

class JsonPrinter final : public Printer {
 public:
  // The stream outlives the printer.
  explicit JsonPrinter(std::ostream& out) : out_{out} {}

  void result(const Sim::Result& result) override;
  void report(const Sim::Report& report) override;
  void error(std::string_view where, std::string_view message) override;
  void failure(std::string_view where, std::string_view command, std::string_view message) override;
  void note(std::string_view text) override;
  void echo(std::string_view text) override;
  void help(std::span<const HelpEntry> commands, bool grammar) override;
  void counter(P4Runtime::EntryHandle handle, const P4Runtime::P4CounterData& data) override;
  void flows(const std::vector<Sim::FlowView>& flows) override;
  void groups(const std::vector<const OpenFlowTable::GroupEntry*>& groups) override;
  void vrfs(const std::vector<Sim::VrfView>& vrfs,
            const std::vector<Sim::DependentView>& dependents) override;
  void entries(const std::vector<Sim::TableView>& tables) override;
  void hw(const Sim::HwAgent& agent) override;
  void trace(const std::vector<std::string>& lines) override;
  void hint(std::string_view text) override;
  void explanation(const Ostra::OstraConfigEntry& entry,
                   const Ostra::FlowPreview& preview) override;
  void storedFlow(const Sim::StoredFlow& flow) override;
  void audit(const Ostra::AuditReport& report) override;
  void pending(const std::vector<Sim::PendingView>& writes) override;

 private:
  std::ostream& out_;
};

}  // namespace Cli
