// Carries out the updates of one Write, in order.
//
// Updates of one kind and one type that stand together go to the switch together: a run. The next
// one begins when the hardware has answered for every update of this one or the batch's time is up.
// What the switch has refused, and what has no answer by then, is undone before the next run, so
// each update meets the state that those before it have left. What has gone well is kept: when its
// run is through, or of a batch that rolls back at the end of all, together with what the keeper
// has noted before.
//
// Thread and process rule: the activity thread.
// Ownership: the request and the parts outlive it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/Timers.h"
#include "p4rt/core/Fault.h"
#include "p4rt/core/Keeper.h"
#include "p4rt/core/Planner.h"
#include "p4rt/core/SwitchWriter.h"

namespace P4rt {

class Batch {
 public:
  // By update of the request; nothing for one that went well.
  using Outcomes = std::vector<std::optional<Fault>>;

  struct Parts {
    const Pipeline& pipeline;
    Store& store;
    Keeper& keeper;
    Sim::Service& service;
    Timers& timers;
    std::chrono::milliseconds timeout;
  };

  // Requires: the atomicity is CONTINUE_ON_ERROR or ROLLBACK_ON_ERROR.
  Batch(const Parts& parts, const p4::v1::WriteRequest& request,
        std::function<void(Outcomes&&)> done);
  ~Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  // Calls `done` once, before it returns or later. Called once.
  void start() { advance(); }

 private:
  struct Job {
    std::size_t update;  // its place in the request
    Change change;
    std::size_t reached = 0;            // how many stages have been written
    bool untouched = false;             // the service itself refused it, and no row was touched
    bool refused = false;               // the row is stored, and the library would not have it
    P4Runtime::EntryHandle restored{};  // of the row, once the job is undone
    bool lost = false;                  // the switch would not take it again
  };

  void advance();
  // The stage that was waited for is over.
  void resume();
  void expire();
  // Plans updates up to where the run has to end.
  void fillRun();
  // False when the run has to be through before the next update can be planned.
  [[nodiscard]] bool planNext();
  // Writes the next stage of the run; whether the hardware has answered.
  [[nodiscard]] bool writeStage();
  void takeStage();
  void finishRun();
  // Keeps what the job has made; a fault is its outcome.
  void keep(const Job& job);
  // The same for the whole batch. False when that failed.
  [[nodiscard]] bool keepAll();

  [[nodiscard]] bool failed(const Job& job) const { return outcomes_[job.update].has_value(); }
  [[nodiscard]] Fault faultOf(const Sim::Result& result, const Sim::Update& write) const;
  // Undoes what the jobs have written, and puts the store back.
  void undo(const std::vector<Job*>& jobs);
  void undoStage(std::size_t stage, const std::vector<Job*>& jobs);
  void takeUndone(Job& job, const Sim::Result& result);
  void rollBack();
  void finish();

  const Parts parts_;
  const p4::v1::WriteRequest& request_;
  std::function<void(Outcomes&&)> done_;
  const bool rollsBack_;
  Planner planner_;
  SwitchWriter writer_;

  Outcomes outcomes_;
  std::size_t next_ = 0;  // the next update to be planned
  std::vector<Job> run_;
  std::uint32_t runNumber_ = 0;
  bool manyStages_ = false;           // some job of the run has more than the main stage
  std::size_t stage_ = 0;             // that is written next
  std::vector<std::size_t> written_;  // by write of the stage, the place of its job in the run
  Writes writes_;
  std::vector<std::vector<Job>> runs_;  // that are through, in order, for rolling back
  bool stopped_ = false;                // an update failed and everything is rolled back

  std::optional<Timers::Id> deadline_;
  std::optional<Timers::Id> wake_;
  bool expired_ = false;
  bool waiting_ = false;
};

}  // namespace P4rt
