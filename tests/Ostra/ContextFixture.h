// A context in a service, with all that it mounts and is given.
#pragma once

#include "FlowFixture.h"
#include "Ostra/Ostra.h"
#include "Ostra/OstraEcmpGroupSm.h"
#include "Ostra/OstraStatusSm.h"
#include "Ostra/StatePaths.h"
#include "platform/P4Runtime/Counter.h"

namespace OstraTest {

namespace StatePath = Ostra::StatePath;

// A context in a service: the state database with all that is to be mounted, and the service's
// objects, with flow tables in the slots 0, 3, 14 and 15.
class Context : public FlowFixture {
 protected:
  Context() {
    manager->entityIs(StatePath::cxHwConfig, cxHwConfig);
    manager->entityIs(StatePath::cxHwStatusDir, cxHwStatusDir);
    manager->entityIs(StatePath::cxConfig, cxConfig);
    manager->entityIs(StatePath::flowCounterDir, flowCounterDir);
    manager->entityIs(StatePath::intfStatusDir, Korm::makePtr<Interface::AllIntfStatusDir>("all"));
    manager->entityIs(StatePath::ipv4EncapTable, encaps);
    for (const int index : {0, 3, 14, 15}) {
      tables->ostraConfigIs(FlowTableIndex{index},
                            Korm::makePtr<Ostra::OstraConfig>(std::to_string(index)));
    }
    tables->p4rtEcmpGroupTableIs(groups);
    tables->p4rtEcmpMemberTableIs(members);
  }

  void make() {
    context = Ostra::ostraContextFactory(tables, vrfs, ports, batchStatus, telemetry, handles,
                                         validation, counters);
  }
  void complete(Tessel::MountStatus status = Tessel::MountStatus::success_) {
    context->doMountsComplete(status, manager);
  }
  void makeComplete() {
    make();
    complete();
  }
  [[nodiscard]] Ostra::OstraConfig& flowTable(std::uint8_t index) const {
    return *tables->ostraConfig(FlowTableIndex{index});
  }
  [[nodiscard]] Korm::Ptr<Ostra::OstraSm> flowSm(std::uint8_t index) const {
    const auto found = context->ostraSmColl().find(index);
    return found == context->ostraSmColl().end() ? nullptr : found->second;
  }
  // Of everything that the context is given or finds.
  [[nodiscard]] std::vector<std::uint32_t> references() const {
    return referencesOf(tables, vrfs, ports, batchStatus, telemetry, handles, validation,
                        cxHwConfig, cxConfig, cxHwStatusDir, flowCounterDir, encaps, groups,
                        members, manager, tables->ostraConfig(FlowTableIndex{0}));
  }

 public:
  const Korm::Ptr<Tessel::EntityManager> manager = Korm::makePtr<Tessel::EntityManager>();
  const Korm::Ptr<Korm::Dir> flowCounterDir = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  const Korm::Ptr<Ostra::OstraConfigTableColl> tables =
      Korm::makePtr<Ostra::OstraConfigTableColl>();
  const Korm::Ptr<P4Runtime::P4RuntimeCounterHelper> counters =
      Korm::makePtr<P4Runtime::P4RuntimeCounterHelper>();
  Korm::Ptr<Ostra::OstraContext> context;
};

}  // namespace OstraTest
