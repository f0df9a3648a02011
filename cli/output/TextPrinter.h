// Text for people: a line per result, aligned tables.
//
// Threads: one thread.
#pragma once

#include <iosfwd>

#include "cli/output/Printer.h"

namespace Cli {

struct TextStyle {
  bool color = false;       // of what goes to `out`
  bool errorColor = false;  // of what goes to `errors`
};

class TextPrinter final : public Printer {
 public:
  // Results go to `out`. Bad commands go to `errors`, and `out` is flushed first. Requires: the
  // streams outlive the printer.
  TextPrinter(std::ostream& out, std::ostream& errors, TextStyle style);

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
  enum class Color { good_, bad_, waiting_ };
  [[nodiscard]] std::string colored(Color color, std::string_view text) const;
  [[nodiscard]] std::string outcome(P4Runtime::ErrorCode code, std::string_view message) const;

  std::ostream& out_;
  std::ostream& errors_;
  const TextStyle style_;
};

}  // namespace Cli
