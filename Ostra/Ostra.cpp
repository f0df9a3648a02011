#include "Ostra/Ostra.h"

#include <array>

#include "Ostra/OstraCounter.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraSm.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/OstraStatusSm.h"
#include "Ostra/StatePaths.h"
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

struct MountRecord {
  const char* path;
  const char* typeName;
  const char* mode;
};
constexpr std::array<MountRecord, 4> mounts{{
    {StatePath::cxHwConfig, "OpenFlowTable::CorvexHwConfig", "wc"},
    {StatePath::cxHwStatusDirMount, "Korm::Dir", "ri"},
    {StatePath::cxConfig, "CorvexConfig::Config", "wc"},
    {StatePath::flowCounterDir, "Korm::Dir", "ri"},
}};

Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> mountEncapTable(
    const Korm::Ptr<Tessel::EntityManager>& entityManager) {
  const auto mount = Korm::makePtr<KormVasta::TableMount>(entityManager);
  mount->handleInitialized();
  return mount->table<NexthopGroup::L2NexthopGroupEncapTable>(StatePath::ipv4EncapTable);
}

// Stores another state machine, or none. Switches the old one off, because somebody else may hold
// it, and returns it.
template <class Sm>
Korm::Ptr<Sm> replace(Korm::Ptr<Sm>& stored, Korm::Ptr<Sm> fresh) {
  auto old = std::exchange(stored, std::move(fresh));
  if (old) {
    old->hasNotificationActiveIs(false);
  }
  return old;
}

// Keeps a state machine with these inputs; otherwise a new one takes its place.
template <class Sm>
Korm::Ptr<Sm> keepOrReplace(Korm::Ptr<Sm>& stored, typename Sm::Inputs inputs) {
  if (!stored || stored->inputs() != inputs) {
    replace(stored, Korm::makeActive<Sm>(std::move(inputs)));
  }
  return stored;
}

}  // namespace

OstraContext::OstraContext(Inputs inputs) : inputs_{std::move(inputs)} {}

OstraContext::~OstraContext() {
  ostraStatusDirSmDel();
  ostraEcmpGroupSmDel();
  ipv4EncapTable_ = nullptr;
  ostraSmCollDelAll();
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
  const auto self = Korm::keptAlive(*this);
  const auto cxHwConfig =
      entityManager->entity<OpenFlowTable::CorvexHwConfig>(StatePath::cxHwConfig);
  const auto cxHwStatusDir = entityManager->entity<Korm::Dir>(StatePath::cxHwStatusDir);
  Korm::assertTrue(cxHwStatusDir != nullptr, "cxHwStatusDir", "Ostra/Ostra", 40);
  const auto cxConfig = entityManager->entity<CorvexConfig::Config>(StatePath::cxConfig);
  const auto flowCounterDir = entityManager->entity<Korm::Dir>(StatePath::flowCounterDir);
  const auto intfStatusDir =
      entityManager->entity<Interface::AllIntfStatusDir>(StatePath::intfStatusDir);
  ipv4EncapTable_ = mountEncapTable(entityManager);

  if (cxHwConfig) {
    cxHwConfig->counterPollEnableIs(true);
  }
  const auto ostraStatusInfo = ostraStatusInfoFactory();
  const auto tables = inputs_.ostraConfigTableColl ? inputs_.ostraConfigTableColl
                                                   : Korm::makePtr<OstraConfigTableColl>();
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    ostraSmCollIs(
        index, ostraSmFactory(cxHwConfig, cxConfig, cxHwStatusDir,
                              tables->ostraConfig(FlowTableIndex{index}), inputs_.vrfIdCollection,
                              inputs_.p4RtPortMappingStatus, inputs_.validationHelper,
                              ostraStatusInfo, inputs_.batchStatus, inputs_.telemetry));
  }
  ostraStatusDirSmIs(cxHwStatusDir, inputs_.batchStatus, ostraStatusInfo,
                     tables->p4rtEcmpGroupTable(), tables->p4rtEcmpMemberTable());
  ostraEcmpGroupSmIs(cxHwConfig, tables->p4rtEcmpGroupTable(), tables->p4rtEcmpMemberTable(),
                     ipv4EncapTable_, inputs_.p4RtPortMappingStatus, inputs_.validationHelper,
                     inputs_.batchStatus, inputs_.p4HandleMgr);
  Korm::assertTrue(flowCounterDir != nullptr, "flowCounterDir", "Ostra/Ostra", 88);
  if (inputs_.counterHelper) {
    inputs_.counterHelper->counterImplMapIs(
        directCounterId, Korm::makeActive<FlowDirectCounterImpl>(flowCounterDir));
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
  return keepOrReplace(ostraStatusDirSm_, {cxHwStatusDir, batchStatus, ostraStatusInfo,
                                           p4rtEcmpGroupTable, p4rtEcmpMemberTable});
}

Korm::Ptr<OstraStatusDirSm> OstraContext::ostraStatusDirSmDel() {
  return replace(ostraStatusDirSm_, {});
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
  return keepOrReplace(ostraEcmpGroupSm_,
                       {cxHwConfig, p4rtEcmpGroupTable, p4rtEcmpMemberTable, ipv4EncapTable,
                        p4RtPortMappingStatus, validationHelper, batchStatus, p4HandleMgr});
}

Korm::Ptr<OstraEcmpGroupSm> OstraContext::ostraEcmpGroupSmDel() {
  return replace(ostraEcmpGroupSm_, {});
}

Korm::Ptr<OstraContext> ostraContextFactory(
    Korm::Ptr<OstraConfigTableColl> ostraConfigTableColl,
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<P4Runtime::Telemetry> telemetry,
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr,
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
    Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counterHelper) {
  return Korm::makeActive<OstraContext>(OstraContext::Inputs{
      std::move(ostraConfigTableColl), std::move(vrfIdCollection), std::move(p4RtPortMappingStatus),
      std::move(batchStatus), std::move(telemetry), std::move(p4HandleMgr),
      std::move(validationHelper), std::move(counterHelper)});
}

}  // namespace Ostra
