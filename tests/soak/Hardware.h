// What Corvex and the hardware agent must do.
//
// Thread and process rule: a value.
#pragma once

#include "tests/soak/Commands.h"
#include "tests/soak/SlotMap.h"

namespace Soak {

struct CorvexFlowState {
  OpenFlowTable::Match match{};
  OpenFlowTable::Actions actions{};
  std::int32_t priority = 0;
  std::uint32_t priorityGroup = 0;
  std::int32_t tableType = 0;
  std::uint32_t entryId = 0;
  double changeCount = 0;
  friend bool operator==(const CorvexFlowState&, const CorvexFlowState&) = default;
};
struct CorvexGroupState {
  unsigned type = 0;
  std::vector<OpenFlowTable::Actions> buckets;
  double changeCount = 0;
  friend bool operator==(const CorvexGroupState&, const CorvexGroupState&) = default;
};

struct Hardware {
  SlotMap<std::string, CorvexFlowState> corvexFlows;
  std::map<std::uint64_t, CorvexGroupState> corvexGroups;
  SlotMap<std::string, std::uint32_t> flowStatus;
  SlotMap<std::uint64_t, std::uint32_t> groupStatus;
  bool published = true;
  bool automatic = true;
  std::vector<std::pair<std::string, std::uint64_t>> queue;  // flows by name, or groups by id
  std::vector<std::string> unanswered;                       // deletes
  std::optional<std::uint32_t> flowRoom, groupRoom;
  // Packets and bytes, of all units.
  std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> counts;

  virtual ~Hardware() = default;
  // Called when a status has changed.
  virtual void flowReported(const std::string& name) = 0;
  virtual void groupReported(std::uint64_t id) = 0;

  void configureFlow(const std::string& name, const CorvexFlowState& flow) {
    corvexFlows.at(name) = flow;
    enqueue(name, 0);
  }
  // Somebody else configures a flow.
  void corvexFlowIs(const std::string& name) {
    const CorvexFlowState& kept = corvexFlows.at(name);
    configureFlow(name, {.entryId = kept.entryId, .changeCount = kept.changeCount});
  }
  bool removeFlow(const std::string& name) {
    const bool was = corvexFlows.erase(name);
    if (was) {
      enqueue(name, 0);
    }
    return was;
  }
  void configureGroup(std::uint64_t id, CorvexGroupState group) {
    corvexGroups[id] = std::move(group);
    enqueue({}, id);
  }
  void removeGroup(std::uint64_t id) {
    if (corvexGroups.erase(id) != 0) {
      enqueue({}, id);
    }
  }
  void enqueue(const std::string& flow, std::uint64_t group) {
    if (std::count(queue.begin(), queue.end(), std::pair{flow, group}) == 0) {
      queue.emplace_back(flow, group);
    }
  }

  void settle() {
    if (automatic) {
      program();
    }
  }
  void program() {
    while (!queue.empty()) {
      const auto [flow, group] = queue.front();
      queue.erase(queue.begin());
      if (!flow.empty()) {
        programFlow(flow);
      } else if (corvexGroups.contains(group)) {
        publishGroup(group, hasRoom(groupStatus, group, 0, groupRoom) ? 0 : 3);
      } else {
        groupStatus.erase(group);
      }
    }
  }
  void programFlow(const std::string& name) {
    if (corvexFlows.find(name) != nullptr) {
      publishFlow(name, hasRoom(flowStatus, name, 1, flowRoom) ? 1 : 7);
    } else if (!withdrawFlow(name)) {
      answerDelete(name);
    } else if (!published) {
      unanswered.push_back(name);
    }
  }
  // Whether it is programmed already, with the status `held`, or there is room for it.
  static bool hasRoom(auto& statuses, const auto& name, std::uint32_t held,
                      std::optional<std::uint32_t> room) {
    std::size_t count = 0;
    statuses.each([&](const auto& /*name*/, std::uint32_t status) { count += status == held; });
    const std::uint32_t* const present = statuses.find(name);
    return !room || count < *room || (present != nullptr && *present == held);
  }

  void count(const std::string& name, std::uint64_t packets, std::uint64_t bytes) {
    counts[name].first += packets;
    counts[name].second += bytes;
  }

  // If there is a status already, its change and the change of its change count are two reports.
  void publishFlow(const std::string& name, std::uint32_t status) {
    std::uint32_t* const present = flowStatus.find(name);
    if (present == nullptr) {
      flowStatus.at(name) = status;
    } else if (std::exchange(*present, status) != status) {
      flowReported(name);
    }
    flowReported(name);
  }
  bool withdrawFlow(const std::string& name) {
    const bool was = flowStatus.erase(name);
    if (was) {
      flowReported(name);
    }
    return was;
  }
  void publishGroup(std::uint64_t id, std::uint32_t status) {
    groupStatus.at(id) = status;
    groupReported(id);
  }
  // For a flow without a status: one is published as pending, and withdrawn.
  void answerDelete(const std::string& name) {
    if (published) {
      flowReported(name);
    } else {
      unanswered.push_back(name);
    }
  }
  void publishedIs(bool isPublished) {
    if (std::exchange(published, isPublished) || !published) {
      return;
    }
    reportAll();
    for (const std::string& name : std::exchange(unanswered, {})) {
      if (flowStatus.find(name) == nullptr) {
        answerDelete(name);
      }
    }
  }
  void reportAll() {
    flowStatus.each([this](const std::string& name, std::uint32_t) { flowReported(name); });
    groupStatus.each([this](std::uint64_t id, std::uint32_t) { groupReported(id); });
  }
};

}  // namespace Soak
