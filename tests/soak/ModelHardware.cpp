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

void Model::corvexFlowIs(const std::string& name, const CorvexFlowState& flow) {
  CorvexFlowState& state = corvexFlows.at(name);
  const auto [entryId, changeCount] = std::pair{state.entryId, state.changeCount};
  state = flow;
  state.entryId = entryId;
  state.changeCount = changeCount;
  enqueue(false, name, 0);
}

bool Model::corvexFlowDel(const std::string& name) {
  const bool was = corvexFlows.erase(name);
  if (was) {
    enqueue(false, name, 0);
  }
  return was;
}

void Model::corvexGroupIs(std::uint64_t id, CorvexGroupState group) {
  corvexGroups[id] = std::move(group);
  enqueue(true, {}, id);
}

bool Model::corvexGroupDel(std::uint64_t id) {
  const bool was = corvexGroups.erase(id) != 0;
  if (was) {
    enqueue(true, {}, id);
  }
  return was;
}

void Model::enqueue(bool isGroup, const std::string& flow, std::uint64_t group) {
  const Waiting one{isGroup, flow, group};
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
    const Waiting one = queue_.front();
    queue_.erase(queue_.begin());
    if (one.isGroup) {
      programGroup(one.group);
    } else {
      programFlow(one.flow);
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

// A status that is there already is told of by the status, if that changes, and by its change count.
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

void Model::perform(const HwMode& mode) {
  automatic_ = mode.automatic;
  settle();
}

void Model::perform(const HwRun& /*run*/) { program(); }

void Model::perform(const HwFlow& flow) {
  if (flow.status) {
    publishFlow(flow.name, *flow.status);
  } else {
    withdrawFlow(flow.name);
  }
  settle();
}

void Model::perform(const HwGroup& group) {
  if (group.status) {
    publishGroup(group.id, *group.status);
  } else if (groupStatus.erase(group.id)) {
    groupReported(group.id);
  }
  settle();
}

void Model::perform(const HwCapacity& capacity) {
  (capacity.ofGroups ? groupRoom_ : flowRoom_) = capacity.room;
}

void Model::perform(const HwCount& count) {
  auto& [packets, bytes] = counts_[count.unit][count.name];
  packets += count.packets;
  bytes += count.bytes;
}

void Model::perform(const HwPublish& publish) {
  if (publish.published == published) {
    return;
  }
  published = publish.published;
  if (!published) {
    return;
  }
  flowStatus.each(
      [this](const std::string& name, std::uint32_t /*status*/) { flowReported(name); });
  groupStatus.each([this](std::uint64_t id, std::uint32_t /*status*/) { groupReported(id); });
  for (const std::string& name : std::exchange(unanswered_, {})) {
    if (flowStatus.find(name) == nullptr) {
      answerDelete(name);
    }
  }
  settle();
}

void Model::perform(const CorvexFlow& flow) {
  if (flow.removed) {
    corvexFlowDel(flow.name);
  } else {
    corvexFlowIs(flow.name, {});
  }
  settle();
}

void Model::perform(const Counter& counter) {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  for (const auto& [unit, flows] : counts_) {
    if (const auto found = flows.find("flow-" + std::to_string(counter.handle));
        found != flows.end()) {
      packets += found->second.first;
      bytes += found->second.second;
    }
  }
  out_.push_back(R"({"type":"counter","handle":)" + std::to_string(counter.handle) +
                 R"(,"packets":)" + std::to_string(packets) + R"(,"bytes":)" +
                 std::to_string(bytes) + "}");
}

}  // namespace Soak
