// The library's root object and its factory: what an integrator calls.
//
//   auto context = Ostra::ostraContextFactory(tables, vrfs, ports, batchStatus, telemetry, handles,
//                                             validation, counters);
//   context->doMounts(mountGroup);
//   ... the platform makes the mounts ...
//   context->doMountsComplete(status, entityManager);
//
// From then on the library is driven by changes of its inputs, until the context goes.
//
// Threads: the hosting service's activity thread.
// Ownership: the service owns the context. The context holds references to its inputs and owns the
// state machines.
#pragma once

#include <cstdint>
#include <map>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/Entity.h"
#include "platform/Tessel/Tessel.h"

namespace CorvexConfig {
class Config;
}
namespace NexthopGroup {
class L2NexthopGroupEncapTable;
}
namespace OpenFlowTable {
class CorvexHwConfig;
}
namespace P4Runtime {
class BatchStatus;
class P4HandleMgr;
class P4RuntimeCounterHelper;
class Telemetry;
class ValidationHelper;
class VrfIdCollection;
}  // namespace P4Runtime
namespace P4RuntimeConfig {
class PortMappingStatus;
}

namespace Ostra {

class OstraEcmpGroupSm;
class OstraSm;
class OstraStatusDirSm;
class OstraStatusInfo;

class OstraContext final : public Korm::Entity {
 public:
  using OstraSmColl = std::map<std::uint8_t, Korm::Ptr<OstraSm>>;

  // The service's objects. Any may be null.
  struct Inputs {
    Korm::Ptr<OstraConfigTableColl> ostraConfigTableColl;
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection;
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus;
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
    Korm::Ptr<P4Runtime::Telemetry> telemetry;
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr;
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper;
    Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counterHelper;

    friend bool operator==(const Inputs&, const Inputs&) noexcept = default;
  };

  // Stores the inputs and does nothing else.
  explicit OstraContext(Inputs inputs);
  // Takes the library down: the status side first, then ECMP, then the flow state machines. What
  // was written to Corvex stays.
  ~OstraContext() override;

  // Declares the four mounts, in order.
  void doMounts(Tessel::MountGroup& mountGroup);

  // Builds the library on the mounted entities. A second call builds it again, and keeps a status
  // or ECMP state machine whose inputs are the same objects. The mount status is not examined. The
  // state machines get null for an entity that is missing.
  // Requires: the directories of hardware statuses and of flow counters are there.
  // Throws: Korm::RangeException for a stored entry with a value out of range. What has been built
  // until then stays.
  void doMountsComplete(Tessel::MountStatus status,
                        const Korm::Ptr<Tessel::EntityManager>& entityManager);

  [[nodiscard]] const OstraSmColl& ostraSmColl() const noexcept { return ostraSmColl_; }
  // Inserts or replaces the state machine of a flow table. Null removes it.
  void ostraSmCollIs(std::uint8_t index, Korm::Ptr<OstraSm> sm);
  // The state machine removed, or null.
  Korm::Ptr<OstraSm> ostraSmCollDel(std::uint8_t index);
  void ostraSmCollDelAll();

  [[nodiscard]] const Korm::Ptr<OstraStatusDirSm>& ostraStatusDirSm() const noexcept {
    return ostraStatusDirSm_;
  }
  // Keeps the state machine if its inputs are the same objects. Otherwise switches it off and
  // replaces it by a new one. Returns the state machine that is stored then.
  Korm::Ptr<OstraStatusDirSm> ostraStatusDirSmIs(
      const Korm::Ptr<const Korm::Dir>& cxHwStatusDir,
      const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
      const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
      const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
      const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable);
  // Removes the state machine, switches it off and returns it.
  Korm::Ptr<OstraStatusDirSm> ostraStatusDirSmDel();

  [[nodiscard]] const Korm::Ptr<OstraEcmpGroupSm>& ostraEcmpGroupSm() const noexcept {
    return ostraEcmpGroupSm_;
  }
  Korm::Ptr<OstraEcmpGroupSm> ostraEcmpGroupSmIs(
      const Korm::Ptr<OpenFlowTable::CorvexHwConfig>& cxHwConfig,
      const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
      const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable,
      const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable>& ipv4EncapTable,
      const Korm::Ptr<const P4RuntimeConfig::PortMappingStatus>& p4RtPortMappingStatus,
      const Korm::Ptr<P4Runtime::ValidationHelper>& validationHelper,
      const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
      const Korm::Ptr<P4Runtime::P4HandleMgr>& p4HandleMgr);
  Korm::Ptr<OstraEcmpGroupSm> ostraEcmpGroupSmDel();

  [[nodiscard]] const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable>& ipv4EncapTable()
      const noexcept {
    return ipv4EncapTable_;
  }

 private:
  const Inputs inputs_;

  // Built by doMountsComplete.
  OstraSmColl ostraSmColl_;
  Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> ipv4EncapTable_;
  Korm::Ptr<OstraStatusDirSm> ostraStatusDirSm_;
  Korm::Ptr<OstraEcmpGroupSm> ostraEcmpGroupSm_;
};

// A context with its notifications on.
[[nodiscard]] Korm::Ptr<OstraContext> ostraContextFactory(
    Korm::Ptr<OstraConfigTableColl> ostraConfigTableColl,
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<P4Runtime::Telemetry> telemetry,
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr,
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
    Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counterHelper);

}  // namespace Ostra
