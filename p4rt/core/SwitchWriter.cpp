#include "p4rt/core/SwitchWriter.h"

#include <string>
#include <utility>

#include "Ostra/GroupNumbering.h"

namespace P4rt {
namespace {

using Sim::Kind;
using Sim::Op;
using Sim::State;

// The id of the Corvex group.
Sim::GroupAnswers::GroupId groupIdOf(const Sim::Update& write) {
  return write.kind() == Kind::member_ ? Ostra::memberGroupId(write.member().memberId)
                                       : Ostra::ecmpGroupId(write.group().groupId);
}

// A group without members is not sent to the hardware.
bool reachesHardware(const Sim::Update& write) {
  return write.kind() == Kind::member_ || write.op() == Op::delete_ ||
         !write.group().memberIds().empty();
}

}  // namespace

SwitchWriter::SwitchWriter(Sim::Service& service, std::function<void()> answered)
    : service_{service},
      answered_{std::move(answered)},
      groups_{service.hwStatusDir()},
      reportNotifiee_{*this, service.reportNotifiees()},
      groupNotifiee_{*this, groups_.notifiees()} {}

bool SwitchWriter::begin(std::span<const Sim::Update> writes) {
  for (const Sim::Update& write : writes) {
    if (write.kind() != Kind::flow_ && reachesHardware(write)) {
      groups_.expect(groupIdOf(write), write.op() == Op::delete_);
    }
  }
  results_ = service_.apply(writes);
  for (std::size_t at = 0; at < results_.size(); ++at) {
    await(at, writes[at]);
  }
  waiting_ = true;
  return awaited_ == 0;
}

void SwitchWriter::await(std::size_t at, const Sim::Update& write) {
  Sim::Result& result = results_[at];
  if (write.kind() == Kind::flow_) {
    if (result.state == State::pending_) {
      const auto [entry, isNew] = flowsAwaited_.tryEmplace(result.handle, at);
      entry.value = at;  // the latest write of the row is the one that counts
      awaited_ += isNew ? 1 : 0;
    }
    return;
  }
  if (!result.succeeded() || !reachesHardware(write)) {
    return;
  }
  const auto id = groupIdOf(write);
  if (const auto code = groups_.answer(id)) {
    result.code = *code;
  } else {
    result.state = State::pending_;
    groupsAwaited_.tryEmplace(id, at);
    ++awaited_;
  }
}

std::vector<Sim::Result> SwitchWriter::take() {
  waiting_ = false;
  awaited_ = 0;
  flowsAwaited_.clear();
  groupsAwaited_.clear();
  groups_.forget();
  return std::exchange(results_, {});
}

void SwitchWriter::handleReport(const Sim::Report& report) {
  if (const auto* const found = flowsAwaited_.find(report.handle)) {
    Sim::Result& result = results_[found->value];
    result.state = State::done_;
    result.code = report.code;
    result.message = report.message;
    flowsAwaited_.erase(report.handle);
    answeredOne();
  }
}

void SwitchWriter::handleGroup(const Sim::GroupAnswers::GroupId& id) {
  const auto* const found = groupsAwaited_.find(id);
  if (found == nullptr) {
    return;
  }
  if (const auto code = groups_.answer(id)) {
    Sim::Result& result = results_[found->value];
    result.state = State::done_;
    result.code = *code;
    groupsAwaited_.erase(id);
    answeredOne();
  }
}

void SwitchWriter::answeredOne() {
  if (--awaited_ == 0 && waiting_) {
    answered_();
  }
}

}  // namespace P4rt
