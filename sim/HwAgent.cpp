#include "sim/HwAgent.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <span>
#include <type_traits>
#include <utility>

#include "platform/Korm/Activity.h"
#include "platform/Korm/Clock.h"
#include "sim/private/NameOrder.h"

namespace Sim {
namespace {

using OpenFlowTable::FlowStats;
using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupStats;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;

// What differs between the publishing of flows and of groups.
template <class Stats>
struct Verdicts;
template <>
struct Verdicts<FlowStats> {
  static constexpr FlowStatus held = FlowStatus::programmed_;
  static constexpr FlowStatus full = FlowStatus::hardwareFull_;
};
template <>
struct Verdicts<GroupStats> {
  static constexpr GroupStatus held = GroupStatus::ready_;
  static constexpr GroupStatus full = GroupStatus::hardwareFull_;
};

FlowStats* find(HwStatus& status, const Korm::HashedName& flow) { return status.flowStats(flow); }
GroupStats* find(HwStatus& status, GroupId group) { return status.groupStats(group); }
void add(HwStatus& status, const Korm::HashedName& flow, FlowStatus value) {
  status.flowStatsIs(flow, value);
}
void add(HwStatus& status, GroupId group, GroupStatus value) { status.groupStatsIs(group, value); }
bool drop(HwStatus& status, const Korm::HashedName& flow) { return status.flowStatsDel(flow); }
bool drop(HwStatus& status, GroupId group) { return status.groupStatsDel(group); }

// Whether the flow or group of these statistics, which may be null, takes room.
template <class Stats>
bool holds(const Stats* stats) {
  return stats != nullptr && stats->status() == Verdicts<Stats>::held;
}

double newerThan(double count) {
  return std::max(Korm::currentTime(),
                  std::nextafter(count, std::numeric_limits<double>::infinity()));
}

// `present` are the key's statistics or null, and `used` is the room that its kind takes.
template <class Stats, class Key, class Status>
void publish(HwStatus& status, std::size_t& used, Stats* present, const Key& key, Status value) {
  used -= holds(present) ? 1U : 0U;
  used += value == Verdicts<Stats>::held ? 1U : 0U;
  if (present == nullptr) {
    add(status, key, value);
    return;
  }
  present->statusIs(value);
  present->changeCountIs(newerThan(present->changeCount()));
}

template <class Key>
bool withdraw(HwStatus& status, std::size_t& used, const Key& key) {
  const auto* const present = find(status, key);
  used -= holds(present) ? 1U : 0U;
  return present != nullptr && drop(status, key);
}

// Programs a key if it has room already or if there is room left.
template <class Side, class Key>
void program(HwStatus& status, Side& side, const Key& key) {
  auto* const present = find(status, key);
  using Outcome = Verdicts<std::remove_pointer_t<decltype(find(status, key))>>;
  const bool room = holds(present) || !side.capacity.has_value() || side.used < *side.capacity;
  publish(status, side.used, present, key, room ? Outcome::held : Outcome::full);
}

Korm::Name nameInUnit(const Korm::Name& flow) { return flow + Korm::Name{HwAgent::unitSuffix}; }

template <class Counts>
void publishCounts(HwStatus& unit, const Korm::Name& flow, const Counts& counts) {
  unit.flowStatsIs(nameInUnit(flow), FlowStatus::programmed_)
      .countersIs(counts.packets, counts.bytes);
}

}  // namespace

HwAgent::HwAgent(Korm::Ptr<OpenFlowTable::CorvexHwConfig> config, Korm::Ptr<Korm::Dir> statusDir,
                 Korm::Ptr<Korm::Dir> unitDir)
    : config_{std::move(config)},
      statusDir_{std::move(statusDir)},
      unitDir_{std::move(unitDir)},
      status_{Korm::makePtr<HwStatus>(Korm::Name{statusName})},
      flowNotifiee_{*this, config_->flowEntryNotifiees()},
      groupNotifiee_{*this, config_->groupEntryNotifiees()},
      pollNotifiee_{*this, config_->counterPollEnableNotifiees()},
      alive_{std::make_shared<char>()} {
  statusDir_->entityIs(status_->name(), status_);
  unit(Korm::Name{firstUnit});
  for (const auto& group : config_->groupEntries()) {
    handleGroup(group.key);
  }
  for (const auto& flow : config_->flowEntries()) {
    handleFlow(flow.key);
  }
}

HwAgent::~HwAgent() = default;

void HwAgent::automaticIs(bool automatic) {
  automatic_ = automatic;
  schedule();
}

void HwAgent::handleFlow(const Korm::Name& name) {
  const Korm::HashedName hashed{name};
  if (flows_.queued.insert(name, hashed.hash())) {
    queue_.push_back({.flow = name, .flowHash = hashed.hash()});
    schedule();
  }
}

void HwAgent::handleGroup(const GroupId& id) {
  if (groups_.queued.insert(id)) {
    queue_.push_back({.flow = {}, .group = id, .isGroup = true});
    schedule();
  }
}

void HwAgent::schedule() {
  if (!automatic_ || scheduled_ || waiting() == 0) {
    return;
  }
  scheduled_ = true;
  Korm::activity().defer([this, alive = std::weak_ptr<void>{alive_}] {
    if (alive.expired()) {
      return;
    }
    scheduled_ = false;
    if (automatic_) {
      run();
    }
  });
}

void HwAgent::run() {
  while (next_ < queue_.size()) {
    if (next_ % prefetchable == 0) {
      prefetchQueued();
    }
    const Korm::Moment moment;
    // The reactors to what is published may queue more, which may reallocate the queue.
    const Waiting waiting = std::move(queue_[next_++]);
    if (waiting.isGroup) {
      groups_.queued.erase(waiting.group);
      programGroup(waiting.group);
    } else {
      flows_.queued.erase(waiting.flow, waiting.flowHash);
      programFlow({waiting.flow, waiting.flowHash});
    }
  }
  queue_.clear();
  next_ = 0;
}

void HwAgent::prefetchQueued() const {
  std::array<std::uint32_t, prefetchable> hashes;
  std::size_t count = 0;
  const auto next = std::span{queue_}.subspan(next_);
  for (const Waiting& waiting : next.first(std::min(next.size(), prefetchable))) {
    if (!waiting.isGroup) {
      hashes[count++] = waiting.flowHash;
    }
  }
  status_->flowStats().prefetch(std::span{hashes}.first(count));
}

void HwAgent::programFlow(const Korm::HashedName& name) {
  if (config_->flowEntry(name) != nullptr) {
    program(*status_, flows_, name);
    return;
  }
  if (!withdraw(*status_, flows_.used, name)) {
    answerDelete(name);
  } else if (!published_) {
    unanswered_.emplace_back(name.text());
  }
}

void HwAgent::programGroup(GroupId id) {
  const OpenFlowTable::GroupEntry* const group = std::as_const(*config_).groupEntry(id);
  if (group == nullptr || group->deleted()) {
    withdraw(*status_, groups_.used, id);
  } else if (group->ready()) {
    program(*status_, groups_, id);
  }
}

// Answers the delete of a flow that has no published status to withdraw.
void HwAgent::answerDelete(const Korm::HashedName& name) {
  if (!published_) {
    unanswered_.emplace_back(name.text());
    return;
  }
  status_->flowStatsIs(name, FlowStatus::pending_);
  status_->flowStatsDel(name);
}

void HwAgent::flowStatusIs(const Korm::Name& name, FlowStatus status) {
  const Korm::HashedName hashed{name};
  publish(*status_, flows_.used, find(*status_, hashed), hashed, status);
}

void HwAgent::groupStatusIs(GroupId id, GroupStatus status) {
  publish(*status_, groups_.used, find(*status_, id), id, status);
}

bool HwAgent::flowStatusDel(const Korm::Name& name) {
  return withdraw(*status_, flows_.used, Korm::HashedName{name});
}

bool HwAgent::groupStatusDel(GroupId id) { return withdraw(*status_, groups_.used, id); }

void HwAgent::publishedIs(bool published) {
  if (published == published_) {
    return;
  }
  published_ = published;
  if (!published) {
    statusDir_->entityDel(status_->name());
    return;
  }
  statusDir_->entityIs(status_->name(), status_);
  for (const Korm::Name& name : std::exchange(unanswered_, {})) {
    if (status_->flowStats(name) == nullptr) {
      answerDelete(name);
    }
  }
}

OpenFlowTable::HwStatus& HwAgent::unit(const Korm::Name& name) {
  auto unit = unitDir_->entityPtr<HwStatus>(name);
  if (!unit) {
    unit = Korm::makePtr<HwStatus>(name);
    unitDir_->entityIs(name, unit);
  }
  return *unit;  // the directory holds it
}

void HwAgent::countersAdd(const Korm::Name& flow, std::uint64_t packets, std::uint64_t bytes,
                          const Korm::Name& unitName) {
  OpenFlowTable::HwStatus& status = unit(unitName);
  Counts& counts = counts_[unitName][flow];
  counts.packets += packets;
  counts.bytes += bytes;
  if (counterPoll()) {
    publishCounts(status, flow, counts);
  }
}

void HwAgent::handleCounterPoll() {
  for (const auto& [unitName, flows] : counts_) {
    OpenFlowTable::HwStatus& status = unit(unitName);
    for (const auto& [flow, counts] : flows) {
      if (counterPoll()) {
        publishCounts(status, flow, counts);
      } else {
        status.flowStatsDel(nameInUnit(flow));
      }
    }
  }
}

std::vector<Korm::Name> HwAgent::units() const {
  std::vector<Korm::Name> names;
  for (const auto& [name, entity] : unitDir_->entities()) {
    if (Korm::dynamicPtrCast<const HwStatus>(entity)) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end(), numberedBefore);
  return names;
}

std::vector<HwAgent::FlowView> HwAgent::publishedFlows() const {
  std::vector<FlowView> views;
  if (published_) {
    for (const auto& flow : status_->flowStats()) {
      views.push_back({&flow.key, flow.value.status()});
    }
  }
  std::sort(views.begin(), views.end(),
            [](const FlowView& a, const FlowView& b) { return numberedBefore(*a.name, *b.name); });
  return views;
}

std::vector<HwAgent::GroupView> HwAgent::publishedGroups() const {
  std::vector<GroupView> views;
  if (published_) {
    for (const auto& group : status_->groupStats()) {
      views.push_back({group.key, group.value.status()});
    }
  }
  std::sort(views.begin(), views.end(),
            [](const GroupView& a, const GroupView& b) { return a.id < b.id; });
  return views;
}

void HwAgent::verify() const {
  flows_.queued.verify();
  groups_.queued.verify();
  Korm::assertTrue(flows_.queued.size() + groups_.queued.size() == waiting(),
                   "each flow or group waits once");
  const auto programmed = [](const auto& all) {
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [](const auto& one) { return holds(&one.value); }));
  };
  Korm::assertTrue(programmed(status_->flowStats()) == flows_.used, "flows take their room");
  Korm::assertTrue(programmed(status_->groupStats()) == groups_.used, "groups take their room");
}

}  // namespace Sim
