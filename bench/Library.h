// The library's flow side on real service objects.
#pragma once

#include "Ostra/OstraSm.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/StatePaths.h"
#include "bench/Entries.h"

namespace Bench {

// Everything that one flow state machine needs. The benchmark plays the service.
struct Library {
  Library() { mapPorts(*portMapping); }

  [[nodiscard]] Korm::Ptr<Ostra::OstraSm> makeSm() {
    return Ostra::ostraSmFactory(hwConfig, config, hwStatusDir, table, vrfCollection, portMapping,
                                 validation, statusInfo, batchStatus, telemetry);
  }

  Korm::Ptr<OpenFlowTable::CorvexHwConfig> hwConfig =
      Korm::makePtr<OpenFlowTable::CorvexHwConfig>(Ostra::p4rtName);
  Korm::Ptr<CorvexConfig::Config> config = Korm::makePtr<CorvexConfig::Config>(Ostra::p4rtName);
  Korm::Ptr<Korm::Dir> hwStatusDir = Korm::makePtr<Korm::Dir>("dyninputstatus");
  Korm::Ptr<Ostra::OstraConfig> table = Korm::makePtr<Ostra::OstraConfig>("0");
  Korm::Ptr<P4Runtime::VrfIdCollection> vrfCollection = Korm::makePtr<P4Runtime::VrfIdCollection>();
  Korm::Ptr<P4RuntimeConfig::PortMappingStatus> portMapping =
      Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  Korm::Ptr<P4Runtime::BatchStatus> batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  Korm::Ptr<P4Runtime::ValidationHelper> validation =
      Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus);
  Korm::Ptr<Ostra::OstraStatusInfo> statusInfo = Ostra::ostraStatusInfoFactory();
  Korm::Ptr<P4Runtime::Telemetry> telemetry = Korm::makePtr<P4Runtime::Telemetry>();
};

}  // namespace Bench
