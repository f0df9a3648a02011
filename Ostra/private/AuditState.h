// The state that the parts of an audit share. Private to the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "Ostra/Audit.h"
#include "Ostra/Ostra.h"
#include "Ostra/OstraSm.h"
#include "platform/Korm/HashMap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Table.h"

namespace Ostra {

// The entry handle in a flow's name; nothing for a name that the library would not give.
[[nodiscard]] std::optional<std::uint64_t> handleOf(const Korm::Name& flow);
// "Corvex group 3"
[[nodiscard]] std::string corvexGroupName(OpenFlowTable::GroupId id);

struct AuditState {
  struct Row {
    bool refused = false;  // by its last write
  };
  using Rows = Korm::HashMap<std::uint64_t, Row>;  // by entry handle

  AuditState(const OstraContext& itsContext, const AuditOptions& itsOptions);

  template <class... Texts>
  void fault(AuditKind kind, Texts&&... texts) {
    report.findings.push_back({kind, true, std::forward<Texts>(texts)...});
  }
  template <class... Texts>
  void expected(AuditKind kind, Texts&&... texts) {
    report.findings.push_back({kind, false, std::forward<Texts>(texts)...});
  }
  template <class... Texts>
  void finding(AuditKind kind, bool isFault, Texts&&... texts) {
    report.findings.push_back({kind, isFault, std::forward<Texts>(texts)...});
  }

  void corruptRow(std::string table, const Vasta::Corruption& corruption) {
    fault(AuditKind::corruptRow_, std::move(table), "a row as it was written", corruption.what(),
          "a stray write into the table's memory");
  }

  // Calls visit(row) for each intact row of `table`, which may be null. Reports each corrupt one
  // and calls corrupt().
  template <class Table, class Visit, class Corrupt>
  void walk(const Korm::Ptr<Table>& table, const char* name, Visit visit, Corrupt corrupt) {
    Vasta::Hint hint;
    while (table) {
      try {
        const auto* const row = table->next(hint);
        if (row == nullptr) {
          return;
        }
        visit(*row);
      } catch (const Vasta::Corruption& corruption) {
        corruptRow(name, corruption);
        corrupt();
      }
    }
  }
  // Whether the table has the row; nothing if the row is corrupt.
  template <class Table, class Key>
  [[nodiscard]] static std::optional<bool> has(const Korm::Ptr<Table>& table, const Key& key) {
    try {
      return table && table->entry(key) != nullptr;
    } catch (const Vasta::Corruption&) {
      return std::nullopt;
    }
  }

  // Whether the hardware says that the group is ready.
  [[nodiscard]] bool isReady(OpenFlowTable::GroupId group) const;
  // Whether a write of the entry is in progress.
  [[nodiscard]] bool underWay(P4Runtime::EntryHandle handle) const;
  // Whether a row accounts for the Corvex flow of that name.
  [[nodiscard]] bool belongsToRow(const Korm::Name& flow) const {
    const auto handle = handleOf(flow);
    return handle && rows.find(*handle) != nullptr;
  }
  // When the entry's last write or delete was handed to Corvex. Nothing when it is not known.
  [[nodiscard]] std::optional<double> configuredAt(std::uint64_t handle);
  // Whether the hardware has had more time than the limit to answer a write at that time.
  [[nodiscard]] bool isOverdue(std::optional<double> since) const noexcept;

  const OstraContext& context;
  const AuditOptions& options;
  const double now;
  // Those of the first flow state machine; except for the table, all have the same.
  const OstraSm::Inputs* inputs = nullptr;
  Korm::Ptr<OpenFlowTable::HwStatus> hardware;  // or null
  Rows rows;
  AuditReport report;

 private:
  void readTelemetry();

  bool telemetryRead_ = false;
  double oldestStamp_ = 0;  // nothing older than that is known
  Korm::HashMap<std::uint64_t, double> configured_;
};

// The parts, in this order.
void auditFlows(AuditState& state);
void auditGroups(AuditState& state);
void auditVrfs(AuditState& state);
void auditHardware(AuditState& state);

}  // namespace Ostra
