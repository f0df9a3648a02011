#include "sim/Blobs.h"

#include <algorithm>
#include <utility>

#include "sim/private/Rows.h"

namespace Sim {
namespace {

constexpr std::uint32_t head = 0;

std::size_t partsOf(std::size_t total) noexcept {
  return std::max<std::size_t>(1, (total + BlobRow::capacity - 1) / BlobRow::capacity);
}

BlobKey keyOf(Blobs::Kind kind, Blobs::Id id, std::uint64_t version, std::uint32_t part) noexcept {
  return {.id = id, .version = part == head ? 0 : version, .kind = kind, .part = part};
}

}  // namespace

const BlobRow* Blobs::part(Kind kind, Id id, std::uint64_t version, std::uint32_t part) const {
  try {
    return table_.entry(keyOf(kind, id, version, part));
  } catch (const Vasta::Corruption&) {
    return nullptr;
  }
}

void Blobs::is(Kind kind, Id id, std::string_view value) {
  const BlobRow* const old = part(kind, id, 0, head);
  const std::uint64_t oldVersion = old == nullptr ? 0 : old->version;
  const std::size_t oldTotal = old == nullptr ? 0 : old->total;
  const std::uint64_t version = oldVersion + 1;
  // The head is written last: until then the old value is in force.
  for (std::size_t at = partsOf(value.size()); at-- > 0;) {
    BlobRow row;
    row.blob = keyOf(kind, id, version, static_cast<std::uint32_t>(at));
    row.version = version;
    row.total = static_cast<std::uint32_t>(value.size());
    const std::string_view bytes =
        value.empty() ? value : value.substr(at * BlobRow::capacity, BlobRow::capacity);
    row.used = static_cast<std::uint32_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), row.bytes.begin());
    table_.entryIs(row);
  }
  delParts(kind, id, oldVersion, oldTotal);
}

bool Blobs::del(Kind kind, Id id) {
  const BlobRow* const old = part(kind, id, 0, head);
  const std::uint64_t version = old == nullptr ? 0 : old->version;
  const std::size_t total = old == nullptr ? 0 : old->total;
  const bool was = table_.table().del(keyOf(kind, id, 0, head), nullptr);
  delParts(kind, id, version, total);
  return was;
}

void Blobs::delParts(Kind kind, Id id, std::uint64_t version, std::size_t total) {
  for (std::uint32_t at = 1; at < partsOf(total); ++at) {
    table_.table().del(keyOf(kind, id, version, at), nullptr);
  }
}

std::optional<std::string> Blobs::find(Kind kind, Id id) const {
  const BlobRow* row = part(kind, id, 0, head);
  if (row == nullptr) {
    return std::nullopt;
  }
  const std::uint64_t version = row->version;
  const std::size_t total = row->total;
  std::string value;
  for (std::uint32_t at = 1;; ++at) {
    value.append(row->bytes.data(), std::min<std::size_t>(row->used, BlobRow::capacity));
    if (at >= partsOf(total)) {
      break;
    }
    row = part(kind, id, version, at);
    if (row == nullptr) {
      return std::nullopt;
    }
  }
  return value.size() == total ? std::optional{std::move(value)} : std::nullopt;
}

std::vector<Blobs::Id> Blobs::ids(Kind kind) const {
  std::vector<Id> ids;
  forEachRow(
      table_,
      [&](const BlobRow& row) {
        if (row.blob.kind == kind && row.blob.part == head) {
          ids.push_back(row.blob.id);
        }
      },
      [](const Vasta::Corruption&) {});
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<std::string> Blobs::recover() {
  std::vector<std::string> faults;
  std::vector<BlobKey> heads;
  std::vector<BlobKey> superseded;
  forEachRow(
      table_,
      [&](const BlobRow& row) {
        const BlobRow* const its = part(row.blob.kind, row.blob.id, 0, head);
        if (row.blob.part == head) {
          heads.push_back(row.blob);
        } else if (its == nullptr || its->version != row.blob.version) {
          superseded.push_back(row.blob);
        }
      },
      [&](const Vasta::Corruption& corruption) {
        faults.emplace_back(corruption.what());
        table_.table().discard(corruption.row());
      });
  for (const BlobKey& key : superseded) {
    table_.table().del(key, nullptr);
  }
  for (const BlobKey& key : heads) {
    if (!find(key.kind, key.id)) {
      faults.push_back("value " + std::to_string(key.id) + " of kind " + std::to_string(key.kind) +
                       " is incomplete");
      del(key.kind, key.id);
    }
  }
  return faults;
}

}  // namespace Sim
