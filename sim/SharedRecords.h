// The records of the service's own tables in shared memory, beside those that it shares with the
// library.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/Interface/Interface.h"
#include "platform/Korm/Hash.h"
#include "platform/KormVasta/TableEntity.h"
#include "platform/P4Runtime/Types.h"

namespace Sim {

// The interface of a port.
struct PortRow {
  using Key = P4Runtime::P4PortId;
  static constexpr std::string_view vastaName = "Sim::PortRow";

  [[nodiscard]] const Key& key() const noexcept { return port; }

  P4Runtime::P4PortId port = 0;
  Interface::IntfId intf;
};

class PortTable final : public KormVasta::TableEntity<PortRow> {
 public:
  using TableEntity::TableEntity;
};

// Identifies one part of a blob; see Blobs.h.
struct BlobKey {
  std::uint64_t id = 0;
  std::uint64_t version = 0;  // 0 for the head
  std::uint32_t kind = 0;
  std::uint32_t part = 0;  // 0 is the head

  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return static_cast<std::uint32_t>(Korm::hashBytes(this, sizeof *this, seed) >> 32);
  }
};

// A part of a blob. The head has the length of the whole blob and the version of the other parts.
struct BlobRow {
  using Key = BlobKey;
  static constexpr std::string_view vastaName = "Sim::BlobRow";
  static constexpr std::size_t capacity = 216;

  [[nodiscard]] const Key& key() const noexcept { return blob; }
  [[nodiscard]] std::size_t usedSize() const noexcept {
    return offsetof(BlobRow, bytes) + std::min<std::size_t>(used, capacity);
  }

  BlobKey blob;
  std::uint64_t version = 0;
  std::uint32_t total = 0;  // bytes of the blob
  std::uint32_t used = 0;   // bytes of this part
  std::array<char, capacity> bytes{};
};

class BlobTable final : public KormVasta::TableEntity<BlobRow> {
 public:
  using TableEntity::TableEntity;
};

}  // namespace Sim
