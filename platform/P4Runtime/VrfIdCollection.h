// The VRFs that entries use.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/Korm/Collection.h"
#include "platform/Korm/Entity.h"
#include "platform/P4Runtime/Types.h"
#include "platform/Vrf/Vrf.h"

namespace P4Runtime {

// For each VRF: how many entries use it, which entry was the first to use it, and which entry was
// the last one removed. For the activity thread.
class VrfIdCollection final : public Korm::Entity {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using RefCounts = Korm::Collection<VrfId, std::uint32_t>;
  using RootHandles = Korm::Collection<VrfId, EntryHandle>;

  // Nothing for a VRF that was never counted. A count that has fallen to 0 is kept as 0.
  [[nodiscard]] std::optional<std::uint32_t> vrfIdRefCount(VrfId vrf) const {
    const std::uint32_t* const count = refCounts_.find(vrf);
    return count == nullptr ? std::nullopt : std::optional{*count};
  }
  // Return the new count, which never falls below 0.
  std::uint32_t vrfIdRefCountInc(VrfId vrf, std::uint32_t by) {
    return vrfIdRefCountIs(vrf, vrfIdRefCount(vrf).value_or(0) + by);
  }
  std::uint32_t vrfIdRefCountDec(VrfId vrf, std::uint32_t by) {
    const std::uint32_t count = vrfIdRefCount(vrf).value_or(0);
    return vrfIdRefCountIs(vrf, count > by ? count - by : 0);
  }
  void vrfIdRefCountDel(VrfId vrf) { refCounts_.del(vrf); }

  // Nothing when none is recorded.
  [[nodiscard]] std::optional<EntryHandle> vrfCreatorRootHandle(VrfId vrf) const {
    return handle(creators_, vrf);
  }
  void vrfCreatorRootHandleIs(VrfId vrf, EntryHandle root) { creators_.is(vrf, root); }
  void vrfCreatorRootHandleDel(VrfId vrf) { creators_.del(vrf); }

  [[nodiscard]] std::optional<EntryHandle> vrfDeletorRootHandle(VrfId vrf) const {
    return handle(deletors_, vrf);
  }
  void vrfDeletorRootHandleIs(VrfId vrf, EntryHandle root) { deletors_.is(vrf, root); }
  void vrfDeletorRootHandleDel(VrfId vrf) { deletors_.del(vrf); }

  [[nodiscard]] const RefCounts& refCounts() const noexcept { return refCounts_; }
  [[nodiscard]] const RootHandles& creators() const noexcept { return creators_; }
  [[nodiscard]] const RootHandles& deletors() const noexcept { return deletors_; }

  void delAll() {
    refCounts_.delAll();
    creators_.delAll();
    deletors_.delAll();
  }

 private:
  [[nodiscard]] static std::optional<EntryHandle> handle(const RootHandles& handles, VrfId vrf) {
    const EntryHandle* const found = handles.find(vrf);
    return found == nullptr ? std::nullopt : std::optional{*found};
  }
  std::uint32_t vrfIdRefCountIs(VrfId vrf, std::uint32_t count) {
    refCounts_.is(vrf, count);
    return count;
  }

  RefCounts refCounts_;
  RootHandles creators_;
  RootHandles deletors_;
};

}  // namespace P4Runtime
