#include "sim/private/ServiceObjects.h"

#include <optional>
#include <string>
#include <string_view>

#include "Ostra/StatePaths.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Exceptions.h"
#include "sim/TablePaths.h"

namespace Sim {
namespace {

namespace StatePath = Ostra::StatePath;

constexpr std::string_view lastName(std::string_view path) noexcept {
  return path.substr(path.rfind('/') + 1);
}

// A new entity, whose name is the last element of its path.
template <class T>
Korm::Ptr<T> make(std::string_view path) {
  return Korm::makePtr<T>(Korm::Name{lastName(path)});
}

std::string numbered(std::string_view dir, std::uint8_t index) {
  return std::string{dir}.append("/").append(std::to_string(index));
}

}  // namespace

ServiceObjects::ServiceObjects()
    : entityManager{Korm::makePtr<Tessel::EntityManager>()},
      hwConfig{make<OpenFlowTable::CorvexHwConfig>(StatePath::cxHwConfig)},
      cxConfig{make<CorvexConfig::Config>(StatePath::cxConfig)},
      hwStatusDir{make<Korm::Dir>(StatePath::cxHwStatusDir)},
      hwUnitDir{make<Korm::Dir>(StatePath::flowCounterDir)},
      encapTable{make<NexthopGroup::L2NexthopGroupEncapTable>(encapTableEntity)},
      portTable{make<PortTable>(portTableEntity)},
      blobTable{make<BlobTable>(blobTableEntity)},
      configTables{Korm::makePtr<Ostra::OstraConfigTableColl>()},
      statusTables{Ostra::ostraStatusTableCollFactory(Korm::Name{lastName(flowStatusDir)})},
      vrfs{Korm::makePtr<P4Runtime::VrfIdCollection>()},
      ports{Korm::makePtr<P4RuntimeConfig::PortMappingStatus>()},
      batchStatus{Korm::makePtr<P4Runtime::BatchStatus>()},
      telemetry{Korm::makePtr<P4Runtime::Telemetry>()},
      handles{Korm::makePtr<P4Runtime::P4HandleMgr>()},
      validation{Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus)},
      counters{Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>()} {
  placeCorvex();
  placeTables();
  collectFaults();
}

void ServiceObjects::placeCorvex() {
  entityManager->entityIs(StatePath::cxHwConfig, hwConfig);
  entityManager->entityIs(StatePath::cxConfig, cxConfig);
  entityManager->entityIs(StatePath::cxHwStatusDir, hwStatusDir);
  entityManager->entityIs(StatePath::flowCounterDir, hwUnitDir);
  entityManager->entityIs(StatePath::intfStatusDir,
                          make<Interface::AllIntfStatusDir>(StatePath::intfStatusDir));
}

// A table is placed before it is written, because its place decides which memory its rows are in.
void ServiceObjects::placeTables() {
  entityManager->entityIs(encapTableEntity, encapTable);
  entityManager->entityIs(portTableEntity, portTable);
  entityManager->entityIs(blobTableEntity, blobTable);
  configTables->p4rtEcmpMemberTableIs(make<P4RuntimeRouting::EcmpMember>(memberTableEntity));
  entityManager->entityIs(memberTableEntity, configTables->p4rtEcmpMemberTable());
  configTables->p4rtEcmpGroupTableIs(make<P4RuntimeRouting::EcmpGroup>(groupTableEntity));
  entityManager->entityIs(groupTableEntity, configTables->p4rtEcmpGroupTable());
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    const std::string flowPath = numbered(flowTableDir, index);
    const auto flows = make<Ostra::OstraConfig>(flowPath);
    entityManager->entityIs(flowPath, flows);
    configTables->ostraConfigIs(Ostra::FlowTableIndex{index}, flows);
    const std::string statusPath = numbered(flowStatusDir, index);
    const auto status = Ostra::ostraStatusFactory(Korm::Name{lastName(statusPath)});
    entityManager->entityIs(statusPath, status);
    statusTables->ostraStatusIs(index, status);
  }
}

void ServiceObjects::verifyTables() const {
  const auto verify = [](const auto& table) {
    const std::optional<std::string> violation = table.verify();
    Korm::assertTrue(!violation, violation ? violation->c_str() : "");
  };
  verify(encapTable->table());
  verify(portTable->table());
  verify(blobTable->table());
  verify(memberTable().table());
  verify(groupTable().table());
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    verify(flowTable(index).table());
    verify(statusTable(index).table());
  }
}

// Collects the faults that the library finds. The service's own accesses throw instead.
void ServiceObjects::collectFaults() {
  const auto collect = [this](const std::string& text) { faults.add(text); };
  encapTable->corruptionHandlerIs(collect);
  memberTable().corruptionHandlerIs(collect);
  groupTable().corruptionHandlerIs(collect);
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    flowTable(index).corruptionHandlerIs(collect);
    statusTable(index).corruptionHandlerIs(collect);
  }
}

}  // namespace Sim
