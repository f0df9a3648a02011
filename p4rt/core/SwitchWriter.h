// Writes to the switch and waits for the answers of the hardware.
//
//   if (!writer.begin(writes)) { ... wait for `answered` ... }
//   for (const Sim::Result& result : writer.take()) ...
//
// Threads: the activity thread.
// Ownership: the service outlives the writer.
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
  // `answered` is called from within the service, so it must not call the service.
  SwitchWriter(Sim::Service& service, std::function<void()> answered);

  // Applies the writes. Returns true when the hardware has answered all of them; otherwise
  // `answered` is called when it has.
  // Requires: the previous results have been taken. Of several writes of one member or group, at
  // most one reaches the hardware. Of several writes of one flow, only the last one is waited for;
  // the first answer is taken as its answer.
  bool begin(std::span<const Sim::Update> writes);
  // The result of each write, in order; pending_ where the hardware has not answered. Ends the
  // waiting.
  std::vector<Sim::Result> take();

  // Applies the writes without waiting for the hardware.
  std::vector<Sim::Result> applyNow(std::span<const Sim::Update> writes) {
    return service_.apply(writes);
  }

 private:
  void await(std::size_t at, const Sim::Update& write);
  void handleReport(const Sim::Report& report);
  void handleGroup(const Sim::GroupAnswers::GroupId& id);
  void answeredOne();

  Sim::Service& service_;
  const std::function<void()> answered_;
  Sim::GroupAnswers groups_;
  std::vector<Sim::Result> results_;
  // The indexes in results_ of the writes that the hardware has not answered.
  Korm::HashMap<P4Runtime::EntryHandle, std::size_t> flowsAwaited_;
  Korm::HashMap<Sim::GroupAnswers::GroupId, std::size_t> groupsAwaited_;
  std::size_t awaited_ = 0;
  bool waiting_ = false;  // from the end of begin() to take()

  Korm::MemberNotifiee<SwitchWriter, &SwitchWriter::handleReport, const Sim::Report&>
      reportNotifiee_;
  Korm::MemberNotifiee<SwitchWriter, &SwitchWriter::handleGroup, const Sim::GroupAnswers::GroupId&>
      groupNotifiee_;
};

}  // namespace P4rt
