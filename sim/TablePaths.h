// The paths of the service's tables in the state database. Another process finds a table by the
// segment name KormVasta::segmentName(prefix, path).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Ostra/OstraTypes.h"
#include "Ostra/StatePaths.h"

namespace Sim {

using Ostra::flowTables;

// The directories of the tables, under each of which an entity is named after its index in decimal.
inline constexpr std::string_view flowTableDir = "p4runtime/flowTable";
inline constexpr std::string_view flowStatusDir = "p4runtime/flowStatus";
// The tables' entities.
inline constexpr std::string_view memberTableEntity = "p4runtime/ecmpMember";
inline constexpr std::string_view groupTableEntity = "p4runtime/ecmpGroup";
inline constexpr std::string_view encapTableEntity = Ostra::StatePath::ipv4EncapTable;
inline constexpr std::string_view portTableEntity = "p4runtime/portMapping";
inline constexpr std::string_view blobTableEntity = "p4runtime/blobs";

// The paths of the tables of those entities: records of Ostra::OstraConfigEntry,
// Ostra::OstraStatusEntry, P4RuntimeRouting::NexthopInfo, P4RuntimeRouting::EcmpMemberList,
// NexthopGroup::EncapEntry, PortRow and BlobRow.
[[nodiscard]] std::string flowTablePath(std::uint8_t index);
[[nodiscard]] std::string flowStatusTablePath(std::uint8_t index);
[[nodiscard]] std::string memberTablePath();
[[nodiscard]] std::string groupTablePath();
[[nodiscard]] std::string encapTablePath();
[[nodiscard]] std::string portTablePath();
[[nodiscard]] std::string blobTablePath();
// All of them.
[[nodiscard]] std::vector<std::string> tablePaths();

}  // namespace Sim
