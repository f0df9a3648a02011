// The hosting P4Runtime service: owns every service-wide object, creates the library on them and
// takes it down, and plays a controller's writes through it.
//
//   Sim::Service service;
//   Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
//   service.start();
//   for (const Sim::Result& result : service.apply(batch)) ...
//   for (const Sim::Report& report : service.takeReports()) ...
//
// Every operation that changes something lets the hardware settle before it returns: it runs the
// activity's queue until nothing waits. After an operation on the hardware agent itself, call
// settle().
//
// What the library reports is either the result of a write of the current batch, or a report.
// Reports are collected in the order of their arrival until takeReports() fetches them. A front end
// does so after every command.
//
// When a range exception leaves the library, its text is a result (apply, start, resync) or the
// return value (the others), and the service goes on. It also goes on where a row is damaged or
// shared memory runs out: the write concerned fails, and takeFaults() returns a text. Any other
// exception leaves the operation, and the service can then only be destroyed. This includes
// std::bad_alloc at any allocation: results that were returned before remain true of the tables,
// and the operation has been done in part.
//
// Given a SharedMemory, the service keeps its tables under that name, and they survive the death of
// the process. A service that resumes has the rows, ports, encapsulations and blobs of the previous
// process, under the same handles; start() announces them. Counters, statuses and everything in
// Corvex start empty.
//
// Threads: one thread, the activity thread. The shared memory and the switch for thread-safe
// pointers are set before the service is made. There is one service at a time in a process, as
// there is one activity and one clock. It uses Korm::currentTime() only.
// Ownership: the service owns its tables and objects and holds the library's context. A hardware
// agent shares the Corvex entities and may outlive the library, though not the service's use of
// them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Ostra/Audit.h"
#include "Ostra/Ostra.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/Notification.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/Tessel/Tessel.h"
#include "platform/Vrf/Vrf.h"
#include "sim/Blobs.h"
#include "sim/SharedMemory.h"
#include "sim/StoredFlow.h"
#include "sim/Writes.h"

namespace Sim {

struct ServiceObjects;
class Transactions;

// The text of the range exception that left the library; nothing when there was none.
using Failure = std::optional<std::string>;

// What came of announcing the stored rows.
struct Announcement {
  // Why the library is not running: it could not be created, or it is stopped.
  Failure failure;
  // The rows that did not end in success, each with Op::announce_: members, groups, flows.
  std::vector<Result> results;
};

// Views for printers. Pointers in them are never null, and valid until the next change.

struct FlowView {
  const Korm::Name* name;
  const OpenFlowTable::FlowEntry* flow;
};

struct VrfView {
  Vrf::VrfIdMap::VrfId vrf = 0;
  std::uint32_t refCount = 0;
  P4Runtime::EntryHandle creator;  // 0 when none is recorded
  P4Runtime::EntryHandle deletor;  // 0 when none is recorded
};

// An entry whose result a VRF waits for.
struct DependentView {
  P4Runtime::EntryHandle handle;
  Vrf::VrfIdMap::VrfId vrf = 0;
};

// A stored flow entry, and its key's entries in the library's index. A stopped library has no
// index.
struct EntryView {
  P4Runtime::EntryHandle handle;
  bool indexed = false;  // the key is mapped to this handle
  std::optional<Vrf::VrfIdMap::VrfId> vrf;
};

struct TableView {
  std::uint8_t table = 0;
  std::vector<EntryView> entries;  // by handle
};

// The stored members and groups, by id.
struct ProfileView {
  std::vector<P4Runtime::MemberOrGroupId> members;
  std::vector<P4Runtime::MemberOrGroupId> groups;
};

class Service {
 public:
  // All objects and tables, with the library stopped. `shared` outlives the service; null for
  // tables that no other process sees.
  // Throws: Vasta::AttachError or std::system_error when named shared memory cannot be used. What
  // was to be resumed then stays as it is.
  explicit Service(SharedMemory* shared = nullptr);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // The state database, and the entities in it that a hardware agent works on. They exist from the
  // start and outlive the library.
  [[nodiscard]] const Korm::Ptr<Tessel::EntityManager>& entityManager() const noexcept;
  [[nodiscard]] const Korm::Ptr<OpenFlowTable::CorvexHwConfig>& hwConfig() const noexcept;
  [[nodiscard]] const Korm::Ptr<Korm::Dir>& hwStatusDir() const noexcept;
  // One OpenFlowTable::HwStatus per hardware unit, for counters.
  [[nodiscard]] const Korm::Ptr<Korm::Dir>& hwUnitDir() const noexcept;

  // The library's life.

  [[nodiscard]] bool running() const noexcept { return context_ != nullptr; }
  // Null when stopped.
  [[nodiscard]] const Korm::Ptr<Ostra::OstraContext>& context() const noexcept { return context_; }
  // Creates the library and announces every stored row (members, groups, flows) in one batch that
  // holds all their handles. When the creation throws a range exception, the library stays stopped
  // and `failure` has the text. Does nothing when the library is running, and `failure` says so.
  Announcement start() { return create(true); }
  // The same without the announcement; the results are those of the creation itself.
  Announcement startBare() { return create(false); }
  // Destroys the library. Tables, Corvex and the hardware stay as they are, and stored rows keep
  // their handles. The VRF counts and the batch status are emptied, and pending writes are
  // forgotten.
  void stop();
  // Announces every stored row again.
  Announcement resync();

  // A controller's writes.

  // Applies the updates in order as one batch, lets the hardware settle, and returns what came of
  // each, in the same order. While the library is stopped, the rows are only stored.
  std::vector<Result> apply(std::span<const Update> batch);
  std::vector<Result> apply(const Update& update) { return apply(std::span{&update, 1}); }
  // Notified of each report, within the operation that causes it. A reactor must not change
  // anything in the service.
  [[nodiscard]] Korm::NotifieeList<const Report&>& reportNotifiees() noexcept;
  // The reports since the last call. A report that equals the one before it is left out, because
  // the hardware publishes a status and its change count separately.
  [[nodiscard]] std::vector<Report> takeReports() { return std::exchange(reports_, {}); }
  // Whether reports are collected. On at first; off for a host that never takes them.
  void reportsGatheredIs(bool gathered) noexcept;
  // Runs what the hardware has deferred, and lets the tables become quiet.
  static void settle();
  // The damaged rows and the shortages of shared memory that were found since the last call.
  [[nodiscard]] std::vector<std::string> takeFaults();

  // The direct counter of a flow entry; zeros for one that has none. Nothing before the first
  // start, when no counter reader is registered.
  [[nodiscard]] std::optional<P4Runtime::P4CounterData> counter(
      P4Runtime::EntryHandle handle) const;

  // What a write would do, and what has become of it. None of these changes anything.

  // Writing the entry into that table now, under the handle and entry id that the service would
  // give it. Nothing while the library is stopped.
  [[nodiscard]] std::optional<Ostra::FlowPreview> explain(std::uint8_t table,
                                                          Ostra::OstraConfigEntry entry) const;
  // Nothing when no flow entry of that handle is stored.
  [[nodiscard]] std::optional<StoredFlow> storedFlow(P4Runtime::EntryHandle handle) const;
  // Nothing while the library is stopped.
  [[nodiscard]] std::optional<Ostra::AuditReport> audit(
      const Ostra::AuditOptions& options = {}) const;
  // The flow entries whose writes wait for the hardware, by handle.
  [[nodiscard]] std::vector<PendingView> pending() const;

  // The switch's own configuration.

  // Map a port, or remove the mapping (false when there is none). Entries with the port are not
  // translated again.
  Failure portIs(P4Runtime::P4PortId port, const Interface::IntfId& intf);
  bool portDel(P4Runtime::P4PortId port);
  // Write or remove an encapsulation entry. Members that use it are programmed again or refused,
  // which is reported.
  // Requires: the type is IP in IP, the only one that members may use.
  Failure encapIs(const NexthopGroup::EncapEntry& entry);
  [[nodiscard]] bool hasEncap(NexthopGroup::EncapId id) const;
  Failure encapDel(NexthopGroup::EncapId id);
  // Create or empty a flow in Corvex, or remove it (false when there is none), as if another writer
  // than the library did so.
  void corvexFlowIs(const Korm::Name& name);
  bool corvexFlowDel(const Korm::Name& name);
  // Flips a bit in the stored row of the flow entry, member or group, as a stray write to shared
  // memory would. False when there is no intact row.
  bool rowDamaged(P4Runtime::EntryHandle handle);

  // The data that a front end stores in addition to the entries.
  [[nodiscard]] Blobs& blobs() noexcept { return *blobs_; }

  // What there is to see.

  // The Corvex flows in the order of the number in the name ("flow-7": 7), those without one last.
  [[nodiscard]] std::vector<FlowView> flows() const;
  // The Corvex groups by id.
  [[nodiscard]] std::vector<const OpenFlowTable::GroupEntry*> groups() const;
  // The VRFs that are counted or recorded, by id.
  [[nodiscard]] std::vector<VrfView> vrfs() const;
  // By handle; none while the library is stopped.
  [[nodiscard]] std::vector<DependentView> dependents() const;
  // The flow tables that store rows, by index.
  [[nodiscard]] std::vector<TableView> entries() const;
  [[nodiscard]] ProfileView storedProfile() const;

  // Asserts the invariants of the transactions, the tables and, of a running library, its indexes.
  // Looks at everything.
  void verify() const;

 private:
  void restore();
  Announcement create(bool announceRows);
  // Creates the context. There is none when a range exception left it.
  Failure createContext();
  [[nodiscard]] Announcement announcement();
  void handleReport(const Report& report);

  bool resumed_ = false;  // the hardware does not have the stored rows yet
  GivenNumbers numbers_;  // unless they are in shared memory
  std::unique_ptr<ServiceObjects> objects_;
  std::unique_ptr<Blobs> blobs_;
  std::unique_ptr<Transactions> transactions_;
  Korm::Ptr<Ostra::OstraContext> context_;
  std::vector<Report> reports_;
  Korm::MemberNotifiee<Service, &Service::handleReport, const Report&> reportNotifiee_;
};

}  // namespace Sim
