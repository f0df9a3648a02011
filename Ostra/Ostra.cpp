#include "Ostra/Ostra.h"

#include <array>

#include "Ostra/OstraCounter.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraSm.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/OstraStatusSm.h"
#include "Ostra/Trace.h"
#include "platform/CorvexConfig/Config.h"
#include "platform/Interface/Interface.h"
#include "platform/Korm/Exceptions.h"
#include "platform/KormVasta/TableMount.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/P4Runtime/Counter.h"

namespace Ostra {
namespace {

constinit Brisklog::TracePoint traceMounts{traceHandle, TraceLevel::routine,
                                           "OstraContext::", "doMounts"};
constinit Brisklog::TracePoint traceMountsComplete{traceHandle, TraceLevel::routine,
                                                   "OstraContext::", "doMountsComplete"};

constexpr const char* cxHwConfigPath = "corvex/dyninput/p4rt";
// Mounted as a directory with what is below it, hence the '/'; looked up without.
constexpr const char* cxHwStatusDirMount = "corvex/cxHwStatusDir/dyninputstatus/";
constexpr const char* cxHwStatusDirPath = "corvex/cxHwStatusDir/dyninputstatus";
constexpr const char* cxConfigPath = "corvex/configDir/p4rt";
constexpr const char* flowCounterDirPath = "openflow/corvexhwstatusdir";
constexpr const char* intfStatusDirPath = "interface/status/all";
constexpr const char* ipv4EncapTablePath = "routing/l2nexthopgroup/ipv4EncapTable";

struct MountRecord {
  const char* path;
  const char* typeName;
  const char* mode;
};
constexpr std::array<MountRecord, 4> mounts{{
    {cxHwConfigPath, "OpenFlowTable::CorvexHwConfig", "wc"},
    {cxHwStatusDirMount, "Korm::Dir", "ri"},
    {cxConfigPath, "CorvexConfig::Config", "wc"},
    {flowCounterDirPath, "Korm::Dir", "ri"},
}};

// Flow state machines exist for the indexes 0 to 14; the last slot of a FlowTableIndex gets none.
constexpr std::uint8_t flowTables = FlowTableIndex::max;

constexpr std::uint32_t directCounterId = 0;

Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> mountEncapTable(
    const Korm::Ptr<Tessel::EntityManager>& entityManager) {
  const auto mount = Korm::makePtr<KormVasta::TableMount>(entityManager);
  mount->handleInitialized();
  return mount->table<NexthopGroup::L2NexthopGroupEncapTable>(ipv4EncapTablePath);
}

}  // namespace

OstraContext::OstraContext(
    Korm::Ptr<OstraConfigTableColl> ostraConfigTableColl,
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<P4Runtime::Telemetry> telemetry,
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr,
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
    Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counterHelper)
    : ostraConfigTableColl_{std::move(ostraConfigTableColl)},
      vrfIdCollection_{std::move(vrfIdCollection)},
      p4RtPortMappingStatus_{std::move(p4RtPortMappingStatus)},
      batchStatus_{std::move(batchStatus)},
      telemetry_{std::move(telemetry)},
      p4HandleMgr_{std::move(p4HandleMgr)},
      validationHelper_{std::move(validationHelper)},
      counterHelper_{std::move(counterHelper)} {}

OstraContext::~OstraContext() {
  ostraStatusDirSmDel();
  ostraEcmpGroupSmDel();
  ipv4EncapTable_ = nullptr;
  ostraSmCollDelAll();
  // The inputs go as members do, last first: the counter helper, then back to the table collection.
}

void OstraContext::doMounts(Tessel::MountGroup& mountGroup) {
  traceMounts();
  for (const MountRecord& record : mounts) {
    Tessel::Mount mount{.path = record.path, .typeName = record.typeName, .flags = {}};
    mount.flags.parse(record.mode);
    mountGroup.mountIs(std::move(mount));
  }
}

void OstraContext::doMountsComplete(Tessel::MountStatus /*status*/,
                                    const Korm::Ptr<Tessel::EntityManager>& entityManager) {
  traceMountsComplete();
  const auto cxHwConfig = entityManager->entity<OpenFlowTable::CorvexHwConfig>(cxHwConfigPath);
  const auto cxHwStatusDir = entityManager->entity<Korm::Dir>(cxHwStatusDirPath);
  Korm::assertTrue(cxHwStatusDir != nullptr, "cxHwStatusDir", "Ostra/Ostra", 40);
  const auto cxConfig = entityManager->entity<CorvexConfig::Config>(cxConfigPath);
  const auto flowCounterDir = entityManager->entity<Korm::Dir>(flowCounterDirPath);
  const auto intfStatusDir = entityManager->entity<Interface::AllIntfStatusDir>(intfStatusDirPath);
  ipv4EncapTable_ = mountEncapTable(entityManager);

  if (cxHwConfig) {
    cxHwConfig->counterPollEnableIs(true);
  }
  const auto ostraStatusInfo = ostraStatusInfoFactory();
  const auto tables =
      ostraConfigTableColl_ ? ostraConfigTableColl_ : Korm::makePtr<OstraConfigTableColl>();
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    ostraSmCollIs(index, ostraSmFactory(cxHwConfig, cxConfig, cxHwStatusDir,
                                        tables->ostraConfig(FlowTableIndex{index}),
                                        vrfIdCollection_, p4RtPortMappingStatus_, validationHelper_,
                                        ostraStatusInfo, batchStatus_, telemetry_));
  }
  ostraStatusDirSmIs(cxHwStatusDir, batchStatus_, ostraStatusInfo, tables->p4rtEcmpGroupTable(),
                     tables->p4rtEcmpMemberTable());
  ostraEcmpGroupSmIs(cxHwConfig, tables->p4rtEcmpGroupTable(), tables->p4rtEcmpMemberTable(),
                     ipv4EncapTable_, p4RtPortMappingStatus_, validationHelper_, batchStatus_,
                     p4HandleMgr_);
  Korm::assertTrue(flowCounterDir != nullptr, "flowCounterDir", "Ostra/Ostra", 88);
  const auto directCounter = Korm::makePtr<FlowDirectCounterImpl>(flowCounterDir);
  directCounter->hasNotificationActiveIs(true);
  if (counterHelper_) {
    counterHelper_->counterImplMapIs(directCounterId, directCounter);
  }
}

void OstraContext::ostraSmCollIs(std::uint8_t index, Korm::Ptr<OstraSm> sm) {
  if (sm) {
    ostraSmColl_[index] = std::move(sm);
  } else {
    ostraSmColl_.erase(index);
  }
}

Korm::Ptr<OstraSm> OstraContext::ostraSmCollDel(std::uint8_t index) {
  auto node = ostraSmColl_.extract(index);
  return node.empty() ? nullptr : std::move(node.mapped());
}

void OstraContext::ostraSmCollDelAll() { ostraSmColl_.clear(); }

Korm::Ptr<OstraStatusDirSm> OstraContext::ostraStatusDirSmIs(
    const Korm::Ptr<const Korm::Dir>& cxHwStatusDir,
    const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
    const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
    const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
    const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable) {
  const auto& stored = ostraStatusDirSm_;
  const bool unchanged = stored && stored->cxStatusDir() == cxHwStatusDir &&
                         stored->batchStatus() == batchStatus &&
                         stored->ostraStatusInfo() == ostraStatusInfo &&
                         stored->p4rtEcmpGroupTable() == p4rtEcmpGroupTable &&
                         stored->p4rtEcmpMemberTable() == p4rtEcmpMemberTable;
  if (!unchanged) {
    ostraStatusDirSm_ = ostraStatusDirSmFactory(cxHwStatusDir, batchStatus, ostraStatusInfo,
                                                p4rtEcmpGroupTable, p4rtEcmpMemberTable);
  }
  return ostraStatusDirSm_;
}

Korm::Ptr<OstraStatusDirSm> OstraContext::ostraStatusDirSmDel() {
  auto removed = std::exchange(ostraStatusDirSm_, nullptr);
  if (removed) {
    removed->hasNotificationActiveIs(false);
  }
  return removed;
}

Korm::Ptr<OstraEcmpGroupSm> OstraContext::ostraEcmpGroupSmIs(
    const Korm::Ptr<OpenFlowTable::CorvexHwConfig>& cxHwConfig,
    const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
    const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable,
    const Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable>& ipv4EncapTable,
    const Korm::Ptr<const P4RuntimeConfig::PortMappingStatus>& p4RtPortMappingStatus,
    const Korm::Ptr<P4Runtime::ValidationHelper>& validationHelper,
    const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
    const Korm::Ptr<P4Runtime::P4HandleMgr>& p4HandleMgr) {
  const auto& stored = ostraEcmpGroupSm_;
  const bool unchanged = stored && stored->cxHwConfig() == cxHwConfig &&
                         stored->p4rtEcmpGroupTable() == p4rtEcmpGroupTable &&
                         stored->p4rtEcmpMemberTable() == p4rtEcmpMemberTable &&
                         stored->ipv4EncapTable() == ipv4EncapTable &&
                         stored->p4RtPortMappingStatus() == p4RtPortMappingStatus &&
                         stored->validationHelper() == validationHelper &&
                         stored->batchStatus() == batchStatus &&
                         stored->p4HandleMgr() == p4HandleMgr;
  if (!unchanged) {
    ostraEcmpGroupSm_ =
        ostraEcmpGroupSmFactory(cxHwConfig, p4rtEcmpGroupTable, p4rtEcmpMemberTable, ipv4EncapTable,
                                p4RtPortMappingStatus, validationHelper, batchStatus, p4HandleMgr);
  }
  return ostraEcmpGroupSm_;
}

Korm::Ptr<OstraEcmpGroupSm> OstraContext::ostraEcmpGroupSmDel() {
  auto removed = std::exchange(ostraEcmpGroupSm_, nullptr);
  if (removed) {
    removed->hasNotificationActiveIs(false);
  }
  return removed;
}

Korm::Ptr<OstraContext> ostraContextFactory(
    Korm::Ptr<OstraConfigTableColl> ostraConfigTableColl,
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<P4Runtime::Telemetry> telemetry,
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr,
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
    Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counterHelper) {
  auto context = Korm::makePtr<OstraContext>(
      std::move(ostraConfigTableColl), std::move(vrfIdCollection), std::move(p4RtPortMappingStatus),
      std::move(batchStatus), std::move(telemetry), std::move(p4HandleMgr),
      std::move(validationHelper), std::move(counterHelper));
  context->hasNotificationActiveIs(true);
  return context;
}

}  // namespace Ostra
