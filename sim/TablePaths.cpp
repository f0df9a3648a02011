#include "sim/TablePaths.h"

namespace Sim {
namespace {

// The names of the tables within their entities.
constexpr std::string_view entryTable = "/entry";
constexpr std::string_view statusTable = "/table";

std::string joined(std::string_view dir, std::uint8_t index, std::string_view table) {
  return std::string{dir}.append("/").append(std::to_string(index)).append(table);
}

}  // namespace

std::string flowTablePath(std::uint8_t index) { return joined(flowTableDir, index, entryTable); }

std::string flowStatusTablePath(std::uint8_t index) {
  return joined(flowStatusDir, index, statusTable);
}

std::string memberTablePath() { return std::string{memberTableEntity}.append(entryTable); }
std::string groupTablePath() { return std::string{groupTableEntity}.append(entryTable); }
std::string encapTablePath() { return std::string{encapTableEntity}.append(entryTable); }
std::string portTablePath() { return std::string{portTableEntity}.append(entryTable); }
std::string blobTablePath() { return std::string{blobTableEntity}.append(entryTable); }

std::vector<std::string> tablePaths() {
  std::vector paths{memberTablePath(), groupTablePath(), encapTablePath(), portTablePath(),
                    blobTablePath()};
  for (std::uint8_t index = 0; index < flowTables; ++index) {
    paths.push_back(flowTablePath(index));
    paths.push_back(flowStatusTablePath(index));
  }
  return paths;
}

}  // namespace Sim
