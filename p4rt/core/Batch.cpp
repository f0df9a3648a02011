#include "p4rt/core/Batch.h"

#include <algorithm>
#include <utility>

namespace P4rt {
namespace {

using P4Runtime::ErrorCode;
using Sim::Op;
using Sim::State;

struct CodeMapping {
  ErrorCode error;
  Code code;
  std::string_view message;  // used when the result has none
};

constexpr std::array codeMappings{
    CodeMapping{ErrorCode::hardwareResourceExhausted_, Code::resourceExhausted_,
                "the hardware has no room"},
    CodeMapping{ErrorCode::actionNotSupported_, Code::unimplemented_,
                "the hardware does not support the action"},
    CodeMapping{ErrorCode::matchNotSupported_, Code::unimplemented_,
                "the hardware does not support the match"},
    CodeMapping{ErrorCode::undefinedBehavior_, Code::invalidArgument_, ""},
    CodeMapping{ErrorCode::notAllowed_, Code::invalidArgument_, ""},
    CodeMapping{ErrorCode::invalidArgument_, Code::invalidArgument_, ""},
    // The planner has checked that the group exists, so this means that it is not programmed yet.
    CodeMapping{ErrorCode::notFound_, Code::failedPrecondition_, "the group is not ready"},
    CodeMapping{ErrorCode::invalidMask_, Code::invalidArgument_, ""},
    CodeMapping{ErrorCode::hardwareError_, Code::internal_, "the hardware has failed"},
};

Fault faultOf(const Sim::Result& result) {
  Fault fault{.code = Code::unknown_,
              .message = result.message,
              .ostraCode = static_cast<std::int32_t>(result.code)};
  for (const CodeMapping& mapping : codeMappings) {
    if (mapping.error == result.code) {
      fault.code = mapping.code;
      if (fault.message.empty()) {
        fault.message = mapping.message;
      }
    }
  }
  return fault;
}

bool wentWell(const Sim::Result& result) {
  return result.state == State::pending_ || result.state == State::stored_ || result.succeeded();
}

std::string notRestored() { return "; the switch has refused to restore what was there"; }

bool isCleanUp(std::size_t stage) {
  return stages[stage] == Stage::oldGroup_ || stages[stage] == Stage::oldMembers_;
}

}  // namespace

Batch::Batch(const Parts& parts, const p4::v1::WriteRequest& request,
             std::function<void(Outcomes&&)> done)
    : parts_{parts},
      request_{request},
      done_{std::move(done)},
      rollsBack_{request.atomicity() == p4::v1::WriteRequest::ROLLBACK_ON_ERROR},
      planner_{parts.pipeline, parts.store},
      // This is called from within the service, so the batch goes on later, from a timer.
      writer_{parts.service,
              [this] {
                if (!wake_) {
                  wake_ = parts_.timers.after({}, [this] {
                    wake_.reset();
                    resume();
                  });
                }
              }},
      outcomes_(static_cast<std::size_t>(request.updates_size())) {}

Batch::~Batch() {
  for (const auto& timer : {deadline_, wake_}) {
    if (timer) {
      parts_.timers.cancel(*timer);
    }
  }
}

void Batch::advance() {
  for (;;) {
    switch (phase_) {
      case Phase::plan_:
        fillRun();
        phase_ = run_.empty() ? Phase::settle_ : Phase::write_;
        break;
      case Phase::write_:
      case Phase::undo_:
        if (!advanceStage()) {
          return;
        }
        break;
      case Phase::settle_:
        if (!stopped_ && (!rollsBack_ || keepAll())) {
          finish();
          return;
        }
        parts_.keeper.forgetNoted();
        rollingBack_ = true;
        phase_ = Phase::rollBack_;
        break;
      case Phase::rollBack_:
        if (runs_.empty()) {
          finish();
          return;
        }
        beginUndo(runs_.back());
        break;
    }
  }
}

bool Batch::advanceStage() {
  const bool undoes = phase_ == Phase::undo_;
  const bool ended = undoes ? undoStage_ == 0 : stage_ == stages.size();
  if (ended) {
    undoes ? endUndo() : endRun();
  } else if (mustWait(undoes ? writeUndo() : writeStage())) {
    return false;
  } else {
    takeResults();
  }
  return true;
}

void Batch::takeResults() { phase_ == Phase::undo_ ? takeUndo() : takeStage(); }

bool Batch::mustWait(bool answered) {
  if (answered || expired_) {
    return false;
  }
  if (!deadline_) {
    deadline_ = parts_.timers.after(parts_.timeout, [this] { expire(); });
  }
  waiting_ = true;
  return true;
}

void Batch::resume() {
  waiting_ = false;
  takeResults();
  advance();
}

void Batch::expire() {
  deadline_.reset();
  expired_ = true;
  if (waiting_) {
    if (wake_) {
      parts_.timers.cancel(*std::exchange(wake_, std::nullopt));
    }
    resume();
  }
}

void Batch::fillRun() {
  runNumber_ = parts_.store.nextRun();
  const auto updates = static_cast<std::size_t>(request_.updates_size());
  const p4::v1::Update* first = nullptr;
  while (next_ < updates && !stopped_) {
    const p4::v1::Update& update = request_.updates(static_cast<int>(next_));
    if (run_.empty()) {
      first = &update;
    } else if (update.type() != first->type() ||
               update.entity().entity_case() != first->entity().entity_case()) {
      return;
    }
    if (!planNext()) {
      return;
    }
  }
}

// The planner assumes that the updates of the run succeed. An update that it refuses may be valid
// after one of them has failed, so it is planned again when the run has finished.
bool Batch::planNext() {
  try {
    Change change = planner_.plan(request_.updates(static_cast<int>(next_)));
    if (!markRun(change, runNumber_, parts_.store)) {
      revert(change, {}, parts_.store);
      return false;
    }
    manyStages_ = manyStages_ || hasHiddenRows(change, parts_.store);
    run_.push_back({.update = next_, .change = std::move(change)});
  } catch (Fault& fault) {
    if (!run_.empty()) {
      return false;
    }
    outcomes_[next_] = std::move(fault);
    stopped_ = rollsBack_;
  }
  ++next_;
  return true;
}

bool Batch::writeStage() {
  writes_.clear();
  written_.clear();
  if (!manyStages_ && stages[stage_] != Stage::main_) {
    return true;
  }
  for (std::size_t at = 0; at < run_.size(); ++at) {
    Job& job = run_[at];
    if (!failed(job)) {
      appendWrites(job.change, stages[stage_], parts_.store, writes_);
      job.reached = stage_ + 1;
      written_.resize(writes_.size(), at);
    }
  }
  return writes_.empty() || writer_.begin(writes_);
}

void Batch::takeStage() {
  const std::vector<Sim::Result> results =
      writes_.empty() ? std::vector<Sim::Result>{} : writer_.take();
  for (std::size_t at = 0; at < results.size(); ++at) {
    const Sim::Result& result = results[at];
    Job& job = run_[written_[at]];
    const bool isMain = stages[stage_] == Stage::main_;
    if (result.succeeded()) {
      if (isMain) {
        handleIs(job.change, result.handle, parts_.store);
      }
      continue;
    }
    if (isMain) {
      job.refused = result.state == State::done_ || result.state == State::failed_;
    }
    if (!failed(job) && !isCleanUp(stage_)) {
      outcomes_[job.update] = faultOf(result, writes_[at]);
    }
  }
  ++stage_;
}

Fault Batch::faultOf(const Sim::Result& result, const Sim::Update& write) const {
  switch (result.state) {
    case State::rejected_:
      // The planner has checked whether the entity exists. So there is no memory for its row.
      return {Code::resourceExhausted_, result.message};
    case State::failed_:
      return {Code::outOfRange_, result.message};
    case State::stored_:
      return {Code::unavailable_, "the switch is stopped"};
    case State::pending_:
      return {Code::deadlineExceeded_, "the hardware has not answered in time"};
    case State::done_:
      break;
  }
  Fault fault = P4rt::faultOf(result);
  if (result.code == ErrorCode::invalidArgument_ && write.kind() == Sim::Kind::member_ &&
      !parts_.service.hasEncap(write.member().encapId)) {
    fault.code = Code::failedPrecondition_;
  }
  return fault;
}

void Batch::endRun() {
  for (const Job& job : run_) {
    if (rollsBack_ || failed(job)) {
      continue;
    }
    keep(job);
    if (!failed(job)) {
      releaseOldHidden(job.change, parts_.store);
    }
  }
  beginUndo(run_);
}

void Batch::keep(const Job& job) {
  try {
    parts_.keeper.note(job.change, request_.updates(static_cast<int>(job.update)).entity(),
                       parts_.store);
    parts_.keeper.keepNoted();
  } catch (Fault& fault) {
    outcomes_[job.update] = std::move(fault);
  }
}

bool Batch::keepAll() {
  for (const auto& run : runs_) {
    for (const Job& job : run) {
      parts_.keeper.note(job.change, request_.updates(static_cast<int>(job.update)).entity(),
                         parts_.store);
    }
  }
  try {
    parts_.keeper.keepNoted();
  } catch (Fault& fault) {
    // No update is to blame more than the others.
    outcomes_.front() = std::move(fault);
    return false;
  }
  return true;
}

void Batch::beginUndo(std::vector<Job>& run) {
  for (Job& job : run) {
    if (!rollingBack_ && !failed(job)) {
      continue;
    }
    if (job.change.op == Op::delete_ || isStored(job.change, parts_.store)) {
      undone_.push_back(&job);
      continue;
    }
    // A later update has deleted the entry, and the switch has refused to restore it.
    releaseOldHidden(job.change, parts_.store);
    job.lost = job.change.op == Op::modify_;
  }
  undoStage_ = undone_.empty() ? 0 : stages.size();
  phase_ = Phase::undo_;
}

bool Batch::writeUndo() {
  --undoStage_;
  writes_.clear();
  written_.clear();
  bool restores = isCleanUp(undoStage_);
  for (std::size_t at = 0; at < undone_.size(); ++at) {
    const Job& job = *undone_[at];
    if (job.reached > undoStage_) {
      appendUndo(job.change, stages[undoStage_], job.refused, parts_.store, writes_);
      written_.resize(writes_.size(), at);
      restores = restores || (stages[undoStage_] == Stage::main_ && job.change.op != Op::insert_);
    }
  }
  return writes_.empty() || writer_.begin(writes_) || !restores;
}

void Batch::takeUndo() {
  const std::vector<Sim::Result> results =
      writes_.empty() ? std::vector<Sim::Result>{} : writer_.take();
  if (stages[undoStage_] != Stage::main_) {
    return;
  }
  // The last write of a job restores its row.
  for (std::size_t at = 0; at < results.size(); ++at) {
    if (at + 1 == results.size() || written_[at + 1] != written_[at]) {
      takeRestored(*undone_[written_[at]], results[at]);
    }
  }
}

void Batch::endUndo() {
  for (Job* const job : std::exchange(undone_, {})) {
    if (job->lost) {
      parts_.keeper.drop(job->change);
      releaseOldHidden(job->change, parts_.store);
    }
    revert(job->change, job->restored, parts_.store);
    if (job->lost) {
      drop(job->change, parts_.store);
    }
  }
  if (rollingBack_) {
    endRunRolledBack();
  } else {
    endRunUndone();
  }
}

void Batch::endRunUndone() {
  for (const Job& job : run_) {
    if (job.lost) {
      outcomes_[job.update]->message += notRestored();
    }
  }
  if (rollsBack_) {
    stopped_ = std::erase_if(run_, [this](const Job& job) { return failed(job); }) != 0;
    runs_.push_back(std::move(run_));
  }
  run_.clear();
  stage_ = 0;
  manyStages_ = false;
  phase_ = Phase::plan_;
}

void Batch::endRunRolledBack() {
  for (const Job& job : runs_.back()) {
    if (!failed(job)) {  // keepAll() may have set its outcome
      outcomes_[job.update] = {Code::aborted_,
                               job.lost ? "rolled back" + notRestored() : "rolled back"};
    }
  }
  runs_.pop_back();
  phase_ = Phase::rollBack_;
}

// A deleted row that is written again gets a new handle. The entry must have it before earlier
// updates of the batch are undone.
void Batch::takeRestored(Job& job, const Sim::Result& result) {
  job.restored = result.handle;
  if (job.change.op != Op::delete_) {
    return;
  }
  // A member or group stays stored even if it was refused, because entities that use it may be
  // restored too. It is programmed when it is written again.
  if (job.change.kind() == Sim::Kind::flow_ && !wentWell(result)) {
    Writes writes;
    appendRemoval(job.change, parts_.store, writes);
    static_cast<void>(writer_.applyNow(writes));
    job.lost = true;
  }
}

void Batch::finish() {
  for (const auto& run : runs_) {
    for (const Job& job : run) {
      releaseOldHidden(job.change, parts_.store);
    }
  }
  for (; next_ < outcomes_.size(); ++next_) {
    outcomes_[next_] = {Code::aborted_, "not attempted"};
  }
  if (deadline_) {
    parts_.timers.cancel(*std::exchange(deadline_, std::nullopt));
  }
  // The callback may destroy the batch.
  const auto done = std::move(done_);
  done(std::move(outcomes_));
}

}  // namespace P4rt
