// A flow state machine's index of its flows by key. Private to the library.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <utility>

#include "Ostra/OstraTypes.h"
#include "platform/Korm/HashMap.h"
#include "platform/Korm/HashSet.h"
#include "platform/Vrf/Vrf.h"

namespace Ostra {

// Two indexes in one map, so that a key of some hundred bytes is stored once: the VRF that a flow
// counts against, and the entry handle under which it was written. Also records, for audits, the
// keys whose last write was refused.
//
// Invariant: a key is in the map exactly while it has a VRF or a handle.
class FlowIndex {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  // Nothing when the key has no VRF.
  [[nodiscard]] std::optional<VrfId> vrf(const HashedKey& key) const noexcept {
    const Record* const record = find(key);
    return record == nullptr ? std::nullopt : record->vrf;
  }
  void vrfIs(const HashedKey& key, VrfId vrf) { record(key).vrf = vrf; }
  // The VRF removed, if there was one.
  std::optional<VrfId> vrfDel(const HashedKey& key) noexcept { return take(key, &Record::vrf); }
  void vrfDelAll() noexcept { takeAll(&Record::vrf); }

  // Nothing when the key has no handle.
  [[nodiscard]] std::optional<std::uint64_t> handle(const HashedKey& key) const noexcept {
    const Record* const record = find(key);
    return record == nullptr ? std::nullopt : record->handle;
  }
  void handleIs(const HashedKey& key, std::uint64_t handle) { record(key).handle = handle; }
  // The handle removed, if there was one.
  std::optional<std::uint64_t> handleDel(const HashedKey& key) noexcept {
    return take(key, &Record::handle);
  }
  void handleDelAll() noexcept { takeAll(&Record::handle); }

  // Whether the last write of the key was refused.
  [[nodiscard]] bool refused(const HashedKey& key) const noexcept {
    return refused_.size() != 0 && refused_.contains(key.key);
  }
  void refusedIs(const HashedKey& key, bool refused) {
    if (refused) {
      refused_.insert(key.key, key.hash);
    } else if (refused_.size() != 0) [[unlikely]] {
      refused_.erase(key.key, key.hash);
    }
  }

  // See Korm::HashMap::prefetch(); takes the hashes of keys.
  void prefetch(std::span<const std::uint32_t> hashes) const noexcept { map_.prefetch(hashes); }

  [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }
  // Calls visit(key, handle, vrf) for each key.
  template <class Visit>
  void forEach(const Visit& visit) const {
    for (const auto& entry : map_) {
      visit(entry.key, entry.value.handle, entry.value.vrf);
    }
  }

  // Asserts every invariant.
  void verify() const {
    map_.verify();
    refused_.verify();
    for (const auto& entry : map_) {
      Korm::assertTrue(entry.value.used(), "an index entry has a handle or a VRF");
    }
  }

 private:
  struct Record {
    [[nodiscard]] bool used() const noexcept { return handle || vrf; }
    std::optional<std::uint64_t> handle;
    std::optional<VrfId> vrf;
  };

  [[nodiscard]] const Record* find(const HashedKey& key) const noexcept {
    const auto* const found = map_.find(key.key, key.hash);
    return found == nullptr ? nullptr : &found->value;
  }
  [[nodiscard]] Record& record(const HashedKey& key) {
    return map_.tryEmplaceHashed(key.hash, key.key).first.value;
  }
  template <class T>
  std::optional<T> take(const HashedKey& key, std::optional<T> Record::*member) noexcept {
    auto* const found = map_.find(key.key, key.hash);
    if (found == nullptr) {
      return std::nullopt;
    }
    const std::optional<T> taken = std::exchange(found->value.*member, std::nullopt);
    if (!found->value.used()) {
      map_.erase(key.key, key.hash);
    }
    return taken;
  }
  template <class T>
  void takeAll(std::optional<T> Record::*member) noexcept {
    for (auto& entry : map_) {
      take(HashedKey{entry.key}, member);
    }
  }

  Korm::HashMap<OstraKey, Record> map_;
  Korm::HashSet<OstraKey> refused_;  // few, so beside the map that every write uses
};

}  // namespace Ostra
