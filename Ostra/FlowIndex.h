// What a flow state machine remembers of its flows, by key. Private to the library.
//
// Thread and process rule: the activity thread.
// Invariant: a key is held exactly while it has a handle or a VRF.
#pragma once

#include <cstdint>
#include <optional>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/HashMap.h"
#include "platform/Vrf/Vrf.h"

namespace Ostra {

// Two indexes in one, so that a write hashes, compares and stores its 268-byte key once: the VRF that a
// flow counts against, and the entry handle under which it was written. Every `hash` is key.hash(0).
class FlowIndex {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  // Nothing when the key has no VRF.
  [[nodiscard]] std::optional<VrfId> vrf(const OstraKey& key, std::uint32_t hash) const noexcept {
    const auto* const found = map_.find(key, hash);
    return found != nullptr && found->value.hasVrf ? std::optional{found->value.vrf} : std::nullopt;
  }
  void vrfIs(const OstraKey& key, std::uint32_t hash, VrfId vrf) {
    Record& record = map_.tryEmplaceHashed(hash, key).first.value;
    record.vrf = vrf;
    record.hasVrf = true;
  }
  // The VRF removed, or Vrf::VrfIdMap::none.
  VrfId vrfDel(const OstraKey& key, std::uint32_t hash) noexcept {
    auto* const found = map_.find(key, hash);
    if (found == nullptr || !found->value.hasVrf) {
      return Vrf::VrfIdMap::none;
    }
    const VrfId removed = found->value.vrf;
    found->value.hasVrf = false;
    dropUnused(key, hash, found->value);
    return removed;
  }
  void vrfDelAll() noexcept {
    for (auto& entry : map_) {
      vrfDel(entry.key, entry.key.hash(0));
    }
  }

  // Nothing when the key has no handle.
  [[nodiscard]] std::optional<std::uint64_t> handle(const OstraKey& key,
                                                    std::uint32_t hash) const noexcept {
    const auto* const found = map_.find(key, hash);
    return found != nullptr && found->value.hasHandle ? std::optional{found->value.handle}
                                                      : std::nullopt;
  }
  void handleIs(const OstraKey& key, std::uint32_t hash, std::uint64_t handle) {
    Record& record = map_.tryEmplaceHashed(hash, key).first.value;
    record.handle = handle;
    record.hasHandle = true;
  }
  // The handle removed, or 0.
  std::uint64_t handleDel(const OstraKey& key, std::uint32_t hash) noexcept {
    auto* const found = map_.find(key, hash);
    if (found == nullptr || !found->value.hasHandle) {
      return 0;
    }
    const std::uint64_t removed = found->value.handle;
    found->value.hasHandle = false;
    dropUnused(key, hash, found->value);
    return removed;
  }
  void handleDelAll() noexcept {
    for (auto& entry : map_) {
      handleDel(entry.key, entry.key.hash(0));
    }
  }

  void clear() noexcept { map_.clear(); }

  // Asserts every invariant.
  void verify() const {
    map_.verify();
    for (const auto& entry : map_) {
      Korm::assertTrue(entry.value.used(), "an index entry has a handle or a VRF");
    }
  }

 private:
  struct Record {
    [[nodiscard]] bool used() const noexcept { return hasHandle || hasVrf; }
    std::uint64_t handle = 0;
    VrfId vrf = 0;
    bool hasHandle = false;
    bool hasVrf = false;
  };

  void dropUnused(const OstraKey& key, std::uint32_t hash, const Record& record) noexcept {
    if (!record.used()) {
      map_.erase(key, hash);
    }
  }

  Korm::HashMap<OstraKey, Record> map_;
};

}  // namespace Ostra
