// The hardware agent: programs the flows and groups that the Corvex configuration wants, and
// publishes what the hardware says of them.
//
// It reacts to changes of the configuration. Changed flows and groups wait in a queue, each once,
// in the order of their first change. Work that is deferred on the activity drains the queue, never
// a write itself. In manual mode the queue waits until run() is called.
//
// Draining the queue, in that order:
// - A flow or group that the hardware does not hold is programmed if there is room: its status is
//   then programmed_, or ready_ for a group. Without room its status is hardwareFull_. It is not
//   tried again when room comes back, because its writer has been told that it failed. It is tried
//   again when it is changed.
// - One that was changed is published again: its status as above, and then its change count, which
//   always grows, even while the clock stands still. What is programmed keeps its room.
// - One that was deleted is withdrawn. A flow that was created and deleted before it could be
//   programmed is published as pending_ and withdrawn, so that its delete is answered.
//
// Every flow that is published as programmed_, and every group that is published as ready_, takes
// room, whether the agent or somebody by hand has published it.
//
// While the status entity is withdrawn (publishedIs), the agent goes on programming. The entity is
// up to date when it is published again. Flows that were deleted meanwhile are then published as
// pending_ and withdrawn, so that their deletes are answered.
//
// Threads: the activity thread. What the agent publishes reaches the library, and the service,
// before the operation here returns. What it defers is done by Korm::activity().run().
// Ownership: holds references to the Corvex entities. The agent does not depend on the library, and
// may live longer or shorter. What it has published stays when it is destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Ostra/FlowUtil.h"
#include "Ostra/StatePaths.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/HashMap.h"
#include "platform/Korm/HashSet.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Sim {

class HwAgent {
 public:
  using GroupId = OpenFlowTable::GroupId;
  using FlowStatus = OpenFlowTable::FlowStatus;
  using GroupStatus = OpenFlowTable::GroupStatus;

  // The name of the status entity that the agent publishes, and of the unit that is there from the
  // start.
  static constexpr std::string_view statusName = Ostra::p4rtName;
  static constexpr std::string_view firstUnit = "unit0";
  // The suffix of flow names in the units.
  static constexpr std::string_view unitSuffix = Ostra::flowCounterSuffix;

  // Publishes an empty status and the first unit, and queues everything in the configuration. The
  // mode is automatic, and the room unlimited.
  HwAgent(Korm::Ptr<OpenFlowTable::CorvexHwConfig> config, Korm::Ptr<Korm::Dir> statusDir,
          Korm::Ptr<Korm::Dir> unitDir);
  ~HwAgent();
  HwAgent(const HwAgent&) = delete;
  HwAgent& operator=(const HwAgent&) = delete;

  // Programming.

  [[nodiscard]] bool automatic() const noexcept { return automatic_; }
  // In automatic mode, the activity's next run drains the queue.
  void automaticIs(bool automatic);
  // Drains the queue now, in either mode.
  void run();
  // How many flows and groups wait.
  [[nodiscard]] std::size_t waiting() const noexcept { return queue_.size() - next_; }

  // The hardware's room; nothing means no limit. Lowering it removes nothing that is programmed.
  void flowCapacityIs(std::optional<std::size_t> capacity) noexcept { flows_.capacity = capacity; }
  void groupCapacityIs(std::optional<std::size_t> capacity) noexcept {
    groups_.capacity = capacity;
  }
  [[nodiscard]] std::optional<std::size_t> flowCapacity() const noexcept { return flows_.capacity; }
  [[nodiscard]] std::optional<std::size_t> groupCapacity() const noexcept {
    return groups_.capacity;
  }
  // How much room is taken.
  [[nodiscard]] std::size_t flowsProgrammed() const noexcept { return flows_.used; }
  [[nodiscard]] std::size_t groupsProgrammed() const noexcept { return groups_.used; }

  // By hand.

  // Publishes a status number, also for a flow or group that is not in the configuration or that
  // has this status already.
  void flowStatusIs(const Korm::Name& name, FlowStatus status);
  void groupStatusIs(GroupId id, GroupStatus status);
  // Withdraws the status; false when none is published.
  bool flowStatusDel(const Korm::Name& name);
  bool groupStatusDel(GroupId id);

  // Withdraws the whole status entity, or restores it.
  void publishedIs(bool published);
  [[nodiscard]] bool published() const noexcept { return published_; }

  // Counters.

  // Adds to a flow's counters on a unit, which is created if it is missing. The counters are kept
  // when the flow is deleted. The unit's status shows them while counter polling is on.
  void countersAdd(const Korm::Name& flow, std::uint64_t packets, std::uint64_t bytes,
                   const Korm::Name& unit = Korm::Name{firstUnit});
  // By name.
  [[nodiscard]] std::vector<Korm::Name> units() const;
  [[nodiscard]] bool counterPoll() const noexcept { return config_->counterPollEnable(); }

  // What there is to see.

  struct FlowView {
    const Korm::Name* name;  // never null; valid until the next change
    FlowStatus status;
  };
  struct GroupView {
    GroupId id;
    GroupStatus status;
  };
  // What is published: flows in the order of the number in the name, with names without a number
  // last, and groups by id. Empty while the status entity is withdrawn.
  [[nodiscard]] std::vector<FlowView> publishedFlows() const;
  [[nodiscard]] std::vector<GroupView> publishedGroups() const;
  // The status entity, also while it is withdrawn.
  [[nodiscard]] const OpenFlowTable::HwStatus& status() const noexcept { return *status_; }

  // Asserts the agent's invariants. Looks at everything.
  void verify() const;

 private:
  struct Waiting {
    Korm::Name flow;  // unless isGroup
    GroupId group = 0;
    std::uint32_t flowHash = 0;  // of the flow's name
    bool isGroup = false;
  };
  template <class Key>
  struct Side {
    Korm::HashSet<Key> queued;
    std::optional<std::size_t> capacity;
    std::size_t used = 0;  // published as programmed, or ready
  };
  struct Counts {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
  };

  void handleFlow(const Korm::Name& name);
  void handleGroup(const GroupId& id);
  void handleCounterPoll();
  void schedule();

  // Prefetches the statistics of the next flows of the queue, `prefetchable` at most.
  static constexpr std::size_t prefetchable = 64;
  void prefetchQueued() const;
  void programFlow(const Korm::HashedName& name);
  void programGroup(GroupId id);
  void answerDelete(const Korm::HashedName& name);

  // The unit of that name, created if it is missing.
  OpenFlowTable::HwStatus& unit(const Korm::Name& name);

  // Constant after construction.
  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> config_;
  const Korm::Ptr<Korm::Dir> statusDir_;
  const Korm::Ptr<Korm::Dir> unitDir_;
  const Korm::Ptr<OpenFlowTable::HwStatus> status_;

  // The activity thread.
  bool automatic_ = true;
  bool published_ = true;
  bool scheduled_ = false;
  std::vector<Waiting> queue_;
  std::size_t next_ = 0;  // the first element of the queue that is not done
  Side<Korm::Name> flows_;
  Side<GroupId> groups_;
  std::vector<Korm::Name> unanswered_;  // withdrawn while nobody could see it
  std::map<Korm::Name, std::map<Korm::Name, Counts>> counts_;  // by unit and flow

  Korm::MemberNotifiee<HwAgent, &HwAgent::handleFlow, const Korm::Name&> flowNotifiee_;
  Korm::MemberNotifiee<HwAgent, &HwAgent::handleGroup, const GroupId&> groupNotifiee_;
  Korm::MemberNotifiee<HwAgent, &HwAgent::handleCounterPoll> pollNotifiee_;
  const std::shared_ptr<void> alive_;  // for work that outlives the agent on the activity
};

}  // namespace Sim
