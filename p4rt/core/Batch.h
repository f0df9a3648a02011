// Carries out the updates of one Write, in order.
//
// Consecutive updates of the same type and the same kind of entity are written to the switch
// together: a run. A run ends early at an update that the planner refuses, or that changes an
// entity of the same run. The next run begins when the hardware has answered every update of this
// one, or when the batch's time is up. Before that, updates that failed or were not answered are
// undone, so that each update starts from the state that the updates before it have left. Where
// this restores something, it waits for the hardware too, stage by stage, until the batch's time is
// up: a flow can only be restored once its group is ready.
//
// Successful updates are kept (Keeper.h): with CONTINUE_ON_ERROR at the end of each run, with
// ROLLBACK_ON_ERROR at the end of the batch, together with what the keeper has noted before.
//
// Threads: the activity thread.
// Ownership: the request and everything in Parts outlive the batch.
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
  // One for each update of the request; nothing for an update that succeeded.
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

  // Calls `done` once, before this returns or later from a timer.
  // Requires: called once.
  void start() { advance(); }

 private:
  // One update of the run.
  struct Job {
    std::size_t update;  // its index in the request
    Change change;
    std::size_t reached = 0;            // the number of stages that have been written
    bool refused = false;               // the row is stored, but the main write failed
    P4Runtime::EntryHandle restored{};  // the handle of the row after the job was undone
    bool lost = false;                  // a deleted flow that the switch refused to restore
  };

  enum class Phase : std::uint8_t {
    plan_,
    write_,     // the stages of the run
    undo_,      // the stages of what failed in the run, or of a whole run, the last one first
    settle_,    // everything is written
    rollBack_,  // the finished runs, the last one first
  };

  // Plans, writes and undoes until the hardware has to be waited for or the batch is finished.
  void advance();
  // Writes or undoes the next stage, or ends that. False when the hardware has to be waited for.
  [[nodiscard]] bool advanceStage();
  // Takes the results of the stage that was written or undone.
  void takeResults();
  // Goes on after the stage that was waited for.
  void resume();
  // The batch's time is up.
  void expire();
  // Plans updates until the run ends.
  void fillRun();
  // Plans the next update. False when the run has to finish first.
  [[nodiscard]] bool planNext();
  // Writes the next stage of the run. True when nothing has to be waited for.
  [[nodiscard]] bool writeStage();
  // Takes the results of the stage.
  void takeStage();
  // Keeps what succeeded, and begins to undo what failed.
  void endRun();
  // Whether the batch waits for the hardware, which has answered or not.
  [[nodiscard]] bool mustWait(bool answered);
  // Keeps the job's change. If that fails, the fault becomes the outcome of its update.
  void keep(const Job& job);
  // Keeps the changes of the whole batch together. False when that failed.
  [[nodiscard]] bool keepAll();

  [[nodiscard]] bool failed(const Job& job) const { return outcomes_[job.update].has_value(); }
  [[nodiscard]] Fault faultOf(const Sim::Result& result, const Sim::Update& write) const;
  // Begins to undo the jobs of the run that failed, or all of them while the batch rolls back.
  void beginUndo(std::vector<Job>& run);
  // Undoes the next stage. True when nothing has to be waited for.
  [[nodiscard]] bool writeUndo();
  // Takes the results of that.
  void takeUndo();
  void takeRestored(Job& job, const Sim::Result& result);
  // Reverts the changes of the undone jobs in the store.
  void endUndo();
  void endRunUndone();
  void endRunRolledBack();
  void finish();

  const Parts parts_;
  const p4::v1::WriteRequest& request_;
  std::function<void(Outcomes&&)> done_;
  const bool rollsBack_;
  Planner planner_;
  SwitchWriter writer_;

  Outcomes outcomes_;
  Phase phase_ = Phase::plan_;
  std::size_t next_ = 0;  // the next update to be planned
  std::vector<Job> run_;
  std::uint32_t runNumber_ = 0;
  bool manyStages_ = false;  // some job of the run has more than the main stage
  std::size_t stage_ = 0;    // the stage to be written next
  // For each write of the stage, the index of its job in run_, or in undone_.
  std::vector<std::size_t> written_;
  Writes writes_;
  std::vector<std::vector<Job>> runs_;  // with ROLLBACK_ON_ERROR: the finished runs, in order
  bool stopped_ = false;                // an update failed and the batch will be rolled back
  bool rollingBack_ = false;            // whole runs are being undone
  std::vector<Job*> undone_;            // the jobs that are being undone
  std::size_t undoStage_ = 0;           // the stages below this one are still to be undone

  std::optional<Timers::Id> deadline_;
  std::optional<Timers::Id> wake_;
  bool expired_ = false;
  bool waiting_ = false;
};

}  // namespace P4rt
