// Corvex and the hardware agent.
#include <algorithm>

#include "tests/soak/Model.h"

namespace Soak {
namespace {

constexpr std::uint32_t programmed = 1;
constexpr std::uint32_t flowFull = 7;
constexpr std::uint32_t ready = 0;
constexpr std::uint32_t groupFull = 3;

std::size_t countOf(const auto& statuses, std::uint32_t wanted) {
  std::size_t count = 0;
  statuses.each([&](const auto& /*key*/, std::uint32_t status) { count += status == wanted; });
  return count;
}

// Whether what has this status has room, or finds some.
bool hasRoom(const auto& statuses, const std::uint32_t* present, std::uint32_t held,
             std::optional<std::uint32_t> room) {
  return (present != nullptr && *present == held) || !room || countOf(statuses, held) < *room;
}

}  // namespace

void Model::configureFlow(const std::string& name, const CorvexFlowState& flow) {
  CorvexFlowState& state = corvexFlows.at(name);
  const auto [entryId, changeCount] = std::pair{state.entryId, state.changeCount};
  state = flow;
  state.entryId = entryId;
  state.changeCount = changeCount;
  enqueue(name, 0);
}

bool Model::removeFlow(const std::string& name) {
  const bool was = corvexFlows.erase(name);
  if (was) {
    enqueue(name, 0);
  }
  return was;
}

void Model::configureGroup(std::uint64_t id, CorvexGroupState group) {
  corvexGroups[id] = std::move(group);
  enqueue({}, id);
}

void Model::removeGroup(std::uint64_t id) {
  if (corvexGroups.erase(id) != 0) {
    enqueue({}, id);
  }
}

void Model::enqueue(const std::string& flow, std::uint64_t group) {
  const Waiting one{flow, group};
  if (std::find(queue_.begin(), queue_.end(), one) == queue_.end()) {
    queue_.push_back(one);
  }
}

void Model::settle() {
  if (automatic_) {
    program();
  }
}

void Model::program() {
  while (!queue_.empty()) {
    const auto [flow, group] = queue_.front();
    queue_.erase(queue_.begin());
    if (flow.empty()) {
      programGroup(group);
    } else {
      programFlow(flow);
    }
  }
}

void Model::programFlow(const std::string& name) {
  if (corvexFlows.find(name) != nullptr) {
    const bool room = hasRoom(flowStatus, flowStatus.find(name), programmed, flowRoom_);
    publishFlow(name, room ? programmed : flowFull);
  } else if (!withdrawFlow(name)) {
    answerDelete(name);
  } else if (!published) {
    unanswered_.push_back(name);
  }
}

void Model::programGroup(std::uint64_t id) {
  if (corvexGroups.contains(id)) {
    const bool room = hasRoom(groupStatus, groupStatus.find(id), ready, groupRoom_);
    publishGroup(id, room ? ready : groupFull);
  } else if (groupStatus.erase(id)) {
    groupReported(id);
  }
}

// A status that is there already is told of by the status, if that changes, and by its change
// count.
void Model::publishFlow(const std::string& name, std::uint32_t status) {
  std::uint32_t* const present = flowStatus.find(name);
  if (present == nullptr) {
    flowStatus.at(name) = status;
  } else if (std::exchange(*present, status) != status) {
    flowReported(name);
  }
  flowReported(name);
}

void Model::publishGroup(std::uint64_t id, std::uint32_t status) {
  groupStatus.at(id) = status;
  groupReported(id);
}

bool Model::withdrawFlow(const std::string& name) {
  const bool was = flowStatus.erase(name);
  if (was) {
    flowReported(name);
  }
  return was;
}

// Nobody has seen a status of it: it comes, as pending, and goes.
void Model::answerDelete(const std::string& name) {
  if (published) {
    flowReported(name);
  } else {
    unanswered_.push_back(name);
  }
}

void Model::automaticIs(bool automatic) { automatic_ = automatic; }

void Model::flowStatusIs(const std::string& name, std::optional<std::uint32_t> status) {
  if (status) {
    publishFlow(name, *status);
  } else {
    withdrawFlow(name);
  }
}

void Model::groupStatusIs(std::uint64_t id, std::optional<std::uint32_t> status) {
  if (status) {
    publishGroup(id, *status);
  } else if (groupStatus.erase(id)) {
    groupReported(id);
  }
}

void Model::roomIs(bool ofGroups, std::optional<std::uint32_t> room) {
  (ofGroups ? groupRoom_ : flowRoom_) = room;
}

void Model::publishedIs(bool isPublished) {
  if (std::exchange(published, isPublished) || !published) {
    return;
  }
  flowStatus.each([this](const std::string& name, std::uint32_t) { flowReported(name); });
  groupStatus.each([this](std::uint64_t id, std::uint32_t) { groupReported(id); });
  for (const std::string& name : std::exchange(unanswered_, {})) {
    if (flowStatus.find(name) == nullptr) {
      answerDelete(name);
    }
  }
}

void Model::corvexFlowIs(const std::string& name) { configureFlow(name, {}); }

void Model::corvexFlowGone(const std::string& name) { removeFlow(name); }

// Of all units.
void Model::count(const std::string& name, std::uint64_t packets, std::uint64_t bytes) {
  counts_[name].first += packets;
  counts_[name].second += bytes;
}

void Model::counter(Handle handle) {
  const auto [packets, bytes] = counts_[flowName(handle)];
  out_.push_back(R"({"type":"counter","handle":)" + std::to_string(handle) + R"(,"packets":)" +
                 std::to_string(packets) + R"(,"bytes":)" + std::to_string(bytes) + "}");
}

}  // namespace Soak
