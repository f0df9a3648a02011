// Maps the ports of the P4 program to interfaces.
#pragma once

#include "platform/Interface/Interface.h"
#include "platform/Korm/Collection.h"
#include "platform/Korm/Entity.h"
#include "platform/P4Runtime/Types.h"

namespace P4RuntimeConfig {

class PortMappingStatus final : public Korm::Entity {
 public:
  using PortMap = Korm::Collection<P4Runtime::P4PortId, Interface::IntfId>;

  // The empty id for a port that is not mapped.
  [[nodiscard]] const Interface::IntfId& p4PortIdToIntfId(P4Runtime::P4PortId port) const noexcept {
    static constexpr Interface::IntfId unmapped;
    const Interface::IntfId* const intf = ports_.find(port);
    return intf == nullptr ? unmapped : *intf;
  }

  void portIs(P4Runtime::P4PortId port, const Interface::IntfId& intf) { ports_.is(port, intf); }
  // Removes the mapping; false when there is none.
  bool portDel(P4Runtime::P4PortId port) { return ports_.del(port).has_value(); }
  [[nodiscard]] const PortMap& ports() const noexcept { return ports_; }

 private:
  PortMap ports_;
};

}  // namespace P4RuntimeConfig
