#include "platform/KormVasta/SharedMemory.h"

#include <algorithm>

#include "platform/Vasta/TableWriter.h"

namespace KormVasta {
namespace {

SharedMemoryOptions& options() {
  static SharedMemoryOptions current;
  return current;
}

}  // namespace

void sharedMemoryIs(SharedMemoryOptions wanted) { options() = std::move(wanted); }

const SharedMemoryOptions& sharedMemory() noexcept { return options(); }

std::string segmentName(std::string_view prefix, std::string_view path) {
  std::string name{prefix};
  name.append(".").append(path);
  std::replace(name.begin(), name.end(), '/', '.');
  return name;
}

std::string prepareSegment(std::string_view path) {
  if (options().prefix.empty()) {
    return {};
  }
  std::string name = segmentName(options().prefix, path);
  if (!options().takeOver) {
    Vasta::removeTable(name);  // a table in use stays, and refuses a new writer
  }
  return name;
}

}  // namespace KormVasta
