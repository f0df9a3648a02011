// Writes to the switch and waits for what the hardware answers.
//
//   if (!writer.begin(writes)) { ... wait for `answered` ... }
//   for (const Sim::Result& result : writer.take()) ...
//
// Thread and process rule: the activity thread.
// Ownership: the service outlives it.
#pragma once

#include <functional>
#include <span>
#include <vector>

#include "platform/Korm/HashMap.h"
#include "platform/Korm/Notification.h"
#include "sim/GroupAnswers.h"
#include "sim/Service.h"

namespace P4rt {

class SwitchWriter {
 public:
  // `answered` is called from within the service, so it calls nothing of it.
  SwitchWriter(Sim::Service& service, std::function<void()> answered);

  // Applies the writes, of which no two are of the same row. Whether all are answered; otherwise
  // `answered` is called when they are. Requires: the results before have been taken.
  bool begin(std::span<const Sim::Update> writes);
  // What has come of each, in order; pending_ of what the hardware has not answered. Nothing is
  // waited for any more.
  std::vector<Sim::Result> take();

  // Applies writes of any rows, and waits for nothing.
  std::vector<Sim::Result> applyNow(std::span<const Sim::Update> writes) {
    return service_.apply(writes);
  }
  [[nodiscard]] const Sim::Service& service() const noexcept { return service_; }

 private:
  void await(std::size_t at, const Sim::Update& write);
  void handleReport(const Sim::Report& report);
  void handleGroup(const Sim::GroupAnswers::GroupId& id);
  void answeredOne();

  Sim::Service& service_;
  const std::function<void()> answered_;
  Sim::GroupAnswers groups_;
  std::vector<Sim::Result> results_;
  Korm::HashMap<P4Runtime::EntryHandle, std::size_t> flowsAwaited_;  // by handle, the place
  Korm::HashMap<Sim::GroupAnswers::GroupId, std::size_t> groupsAwaited_;
  std::size_t awaited_ = 0;
  bool waiting_ = false;  // begin() has returned

  Korm::MemberNotifiee<SwitchWriter, &SwitchWriter::handleReport, const Sim::Report&>
      reportNotifiee_;
  Korm::MemberNotifiee<SwitchWriter, &SwitchWriter::handleGroup, const Sim::GroupAnswers::GroupId&>
      groupNotifiee_;
};

}  // namespace P4rt
