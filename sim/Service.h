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
// What the library reports is either the result of a write of the batch under way, or a report.
// Reports gather in the order of their arrival, during any operation, until takeReports() fetches
// them: a front end does so after every command.
//
// A range exception that leaves the library is a result (apply, start, resync) or a returned text
// (the others); the service goes on. It also goes on where a row is damaged or shared memory runs
// out: the write that meets it fails, and takeFaults() has a text. Any other exception leaves the
// operation, and the service can then only be destroyed. So it is with std::bad_alloc, at whatever
// allocation it comes: what had been returned stays true of the tables, and of the operation a
// first part has been made.
//
// Given a SharedMemory, the service keeps its tables under that name, where they outlive a process
// that dies. One that resumes has the rows, the ports, the encapsulations and the blobs of the
// process before from construction on, under the same handles; start() announces them. Counters,
// statuses and everything in Corvex begin anew.
//
// Thread and process rule: one thread, the activity thread. The shared memory and the switch for
// thread-safe pointers are set before the service is made. There is one service at a time in a
// process, as there is one activity and one clock. It uses Korm::currentTime() only.
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

// The range exception's text when one left the library; nothing when all went well.
using Failure = std::optional<std::string>;

// What came of announcing the stored rows.
struct Announcement {
  // Why the library is not running: it could not be created, or it is stopped. Nothing otherwise.
  Failure failure;
  // The rows that did not end in success, each with Op::announce_: members, groups, flows.
  std::vector<Result> results;
};

// Views for printers. Pointers in them are never null, and good until the next change.

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

// A stored flow entry, and what the library's indexes say of its key. A stopped library indexes
// nothing.
struct EntryView {
  P4Runtime::EntryHandle handle;
  bool indexed = false;  // the key is mapped to this very handle
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
  // Throws: what the table service throws when named shared memory cannot be had; what was to be
  // resumed then stays as it is.
  explicit Service(SharedMemory* shared = nullptr);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // The state database, and the entities in it that a hardware agent works on. They are there from
  // the start and outlive the library.
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
  // holds all their handles. When creating it raises a range exception, the library stays stopped
  // and the text is returned. A running library is left alone; `failure` says so.
  Announcement start() { return create(true); }
  // The same without the announcement; the results are those that the creation itself brought.
  Announcement startBare() { return create(false); }
  // Destroys the library. Tables, Corvex and the hardware keep what they hold, stored rows their
  // handles; the VRF books and the batch status are empty, and what was pending is forgotten.
  void stop();
  // Announces every stored row again.
  Announcement resync();

  // A controller's writes.

  // Applies the updates in order as one batch, lets the hardware settle, and returns what came of
  // each, in the same order. While the library is stopped the rows are stored and that is all.
  std::vector<Result> apply(std::span<const Update> batch);
  std::vector<Result> apply(const Update& update) { return apply(std::span{&update, 1}); }
  // Told of each report as it comes, within the operation that brings it. A reactor changes nothing
  // in the service.
  [[nodiscard]] Korm::NotifieeList<const Report&>& reportNotifiees() noexcept;
  // The reports since the last call. One that repeats the report just before it is left out: the
  // hardware publishes a status and its change count one after the other.
  [[nodiscard]] std::vector<Report> takeReports() { return std::exchange(reports_, {}); }
  // Whether they gather. On from the start; off for a host that never takes them.
  void reportsGatheredIs(bool gathered) noexcept;
  // Lets the hardware do what it has put off, and the tables become quiet.
  static void settle();
  // Damaged rows and shared memory that ran out, as they were met since the last call.
  [[nodiscard]] std::vector<std::string> takeFaults();

  // The direct counter of a flow entry; zeros for one that has none. Nothing when no reader is
  // registered, which is before the first start.
  [[nodiscard]] std::optional<P4Runtime::P4CounterData> counter(
      P4Runtime::EntryHandle handle) const;

  // What a write would do, and what has become of it. All of them change nothing.

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

  // Maps a port, or drops the mapping (false when there was none). Entries that name the port are
  // not translated again.
  Failure portIs(P4Runtime::P4PortId port, const Interface::IntfId& intf);
  bool portDel(P4Runtime::P4PortId port);
  // Writes or removes an encapsulation entry; members that use it are programmed again, or refused,
  // which shows as reports. The type must be IP in IP, the only one that members may use.
  Failure encapIs(const NexthopGroup::EncapEntry& entry);
  [[nodiscard]] bool hasEncap(NexthopGroup::EncapId id) const;
  Failure encapDel(NexthopGroup::EncapId id);
  // Places an empty flow in Corvex, or replaces the one of that name by one; removes one (false
  // when there was none). Behind the library's back.
  void corvexFlowIs(const Korm::Name& name);
  bool corvexFlowDel(const Korm::Name& name);
  // Flips a bit in the stored row of the flow entry, member or group, as a stray write would. False
  // when there is no intact one.
  bool rowDamaged(P4Runtime::EntryHandle handle);

  // What a front end keeps beside the entries.
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

  // Asserts the invariants of the books, of the tables and, of a running library, its indexes.
  // Looks at everything.
  void verify() const;

 private:
  void restore();
  Announcement create(bool announceRows);
  // Makes the context; the range exception's text if one left it, with no context then.
  Failure createContext();
  [[nodiscard]] Announcement announcement();
  void handleReport(const Report& report);

  bool resumed_ = false;  // the hardware has nothing yet of the rows that are stored
  GivenNumbers numbers_;  // where no shared memory has them
  std::unique_ptr<ServiceObjects> objects_;
  std::unique_ptr<Blobs> blobs_;
  std::unique_ptr<Transactions> transactions_;
  Korm::Ptr<Ostra::OstraContext> context_;
  std::vector<Report> reports_;
  Korm::MemberNotifiee<Service, &Service::handleReport, const Report&> reportNotifiee_;
};

}  // namespace Sim
