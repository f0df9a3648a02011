// The hardware agent: programs the flows and groups that the Corvex configuration wants, and
// publishes what the hardware says of them.
//
// It follows the configuration by its reactors. What has changed waits in a queue, each flow or
// group once, in the order of the first change; the queue is drained by work that is deferred on
// the activity, never inside a write. In manual mode it waits until run() is called.
//
// Draining, in that order:
// - A flow or group that the hardware does not hold is programmed if there is room: its status is
//   then programmed_, or ready_ for a group. Without room its status is hardwareFull_. It is not
//   tried again when room comes back, because its writer has been told that it failed. It is tried
//   again when it is changed.
// - One that was changed is published again: its status as above, and then its change count, which
//   always grows, even while the clock stands still. What is programmed keeps its room.
// - One that is gone is withdrawn. A flow that came and went before it could be programmed is
//   published as pending_ and withdrawn, so that its delete is answered.
//
// Room is taken by what is published as programmed_ (ready_ for a group), whether the agent or
// somebody's hand published it, and by nothing else.
//
// While the status entity is withdrawn (publishedIs) the agent goes on programming, and publishing
// it again shows the same entity with everything as it is by then. Flows that were deleted
// meanwhile are then published as pending_ and withdrawn, again so that their deletes are answered.
//
// Thread and process rule: the activity thread. What the agent publishes reaches the library, and
// the service, before the operation here returns; what it puts off is done by
// Korm::activity().run().
// Ownership: shares the Corvex entities with whoever made them. Lives independently of the library,
// before, during and after it. Destroying the agent leaves what it has published.
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
  // What the names of flows end in within the units.
  static constexpr std::string_view unitSuffix = Ostra::flowCounterSuffix;

  // Publishes an empty status and the first unit, and queues whatever the configuration holds
  // already. Automatic, with room for everything.
  HwAgent(Korm::Ptr<OpenFlowTable::CorvexHwConfig> config, Korm::Ptr<Korm::Dir> statusDir,
          Korm::Ptr<Korm::Dir> unitDir);
  ~HwAgent();
  HwAgent(const HwAgent&) = delete;
  HwAgent& operator=(const HwAgent&) = delete;

  // Programming.

  [[nodiscard]] bool automatic() const noexcept { return automatic_; }
  // Becoming automatic puts off the work that waits to the activity's next run.
  void automaticIs(bool automatic);
  // Programs all that is waiting, now and in either mode.
  void run();
  // How many flows and groups wait.
  [[nodiscard]] std::size_t waiting() const noexcept { return queue_.size() - next_; }

  // The hardware's room; nothing for no limit. Lowering it below what is programmed takes nothing
  // away.
  void flowCapacityIs(std::optional<std::size_t> capacity) noexcept { flows_.capacity = capacity; }
  void groupCapacityIs(std::optional<std::size_t> capacity) noexcept {
    groups_.capacity = capacity;
  }
  [[nodiscard]] std::optional<std::size_t> flowCapacity() const noexcept { return flows_.capacity; }
  [[nodiscard]] std::optional<std::size_t> groupCapacity() const noexcept {
    return groups_.capacity;
  }
  // How much of it is taken.
  [[nodiscard]] std::size_t flowsProgrammed() const noexcept { return flows_.used; }
  [[nodiscard]] std::size_t groupsProgrammed() const noexcept { return groups_.used; }

  // By hand.

  // Publishes a status number, also for a flow or group that nobody wants or that is published with
  // that number already.
  void flowStatusIs(const Korm::Name& name, FlowStatus status);
  void groupStatusIs(GroupId id, GroupStatus status);
  // Withdraws what is published; false when nothing is.
  bool flowStatusDel(const Korm::Name& name);
  bool groupStatusDel(GroupId id);

  // Withdraws the whole status entity, or restores it.
  void publishedIs(bool published);
  [[nodiscard]] bool published() const noexcept { return published_; }

  // Counters.

  // Adds to a flow's counters on a unit; a new unit is added. They are kept whatever becomes of the
  // flow, and stand in the unit's status while counter polling is on.
  void countersAdd(const Korm::Name& flow, std::uint64_t packets, std::uint64_t bytes,
                   const Korm::Name& unit = Korm::Name{firstUnit});
  // By name.
  [[nodiscard]] std::vector<Korm::Name> units() const;
  [[nodiscard]] bool counterPoll() const noexcept { return config_->counterPollEnable(); }

  // What there is to see.

  struct FlowView {
    const Korm::Name* name;  // never null; good until the next change
    FlowStatus status;
  };
  struct GroupView {
    GroupId id;
    GroupStatus status;
  };
  // What is published, in the order of the number in the name, names without one last; groups by
  // id. Nothing while the status entity is withdrawn.
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
  struct Nothing {};
  template <class Key>
  struct Side {
    Korm::HashMap<Key, Nothing> queued;
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

  void programFlow(const Korm::HashedName& name);
  void programGroup(GroupId id);
  void answerDelete(const Korm::HashedName& name);

  // Added when it is not there.
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
  std::size_t next_ = 0;  // in the queue; what stands before it is done
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
