// The service-wide objects: those that the service owns and passes to the library, and the state
// database with everything that others mount.
//
// Threads: the activity thread.
// Ownership: holds a reference to each. None is null, and none is ever replaced.
#pragma once

#include <cstdint>

#include "Ostra/OstraStatus.h"
#include "Ostra/OstraTypes.h"
#include "platform/CorvexConfig/Config.h"
#include "platform/Korm/Dir.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/Counter.h"
#include "platform/P4Runtime/HandleMgr.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"
#include "platform/Tessel/Tessel.h"
#include "sim/SharedRecords.h"
#include "sim/private/Faults.h"

namespace Sim {

struct ServiceObjects {
  // Creates everything and places it in the tree.
  // Throws: Vasta::AttachError or std::system_error when named shared memory cannot be used.
  ServiceObjects();

  [[nodiscard]] Ostra::OstraConfig& flowTable(std::uint8_t index) const {
    return *configTables->ostraConfig(Ostra::FlowTableIndex{index});
  }
  [[nodiscard]] P4RuntimeRouting::EcmpMember& memberTable() const {
    return *configTables->p4rtEcmpMemberTable();
  }
  [[nodiscard]] P4RuntimeRouting::EcmpGroup& groupTable() const {
    return *configTables->p4rtEcmpGroupTable();
  }
  [[nodiscard]] Ostra::OstraStatus& statusTable(std::uint8_t index) const {
    return *statusTables->ostraStatus(index);
  }

  // In the state database.
  const Korm::Ptr<Tessel::EntityManager> entityManager;
  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> hwConfig;
  const Korm::Ptr<CorvexConfig::Config> cxConfig;
  const Korm::Ptr<Korm::Dir> hwStatusDir;
  const Korm::Ptr<Korm::Dir> hwUnitDir;
  const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> encapTable;
  const Korm::Ptr<PortTable> portTable;
  const Korm::Ptr<BlobTable> blobTable;

  // The service's own.
  const Korm::Ptr<Ostra::OstraConfigTableColl> configTables;
  const Korm::Ptr<Ostra::OstraStatusTableColl> statusTables;
  const Korm::Ptr<P4Runtime::VrfIdCollection> vrfs;
  const Korm::Ptr<P4RuntimeConfig::PortMappingStatus> ports;
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
  const Korm::Ptr<P4Runtime::Telemetry> telemetry;
  const Korm::Ptr<P4Runtime::P4HandleMgr> handles;
  const Korm::Ptr<P4Runtime::ValidationHelper> validation;
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters;

  Faults faults;

  // Asserts the invariants of the tables.
  void verifyTables() const;

 private:
  void placeCorvex();
  void placeTables();
  void collectFaults();
};

}  // namespace Sim
