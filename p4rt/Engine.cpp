#include "p4rt/Engine.h"

#include <deque>
#include <optional>
#include <utility>

#include "p4rt/core/Audit.h"
#include "p4rt/core/Batch.h"
#include "p4rt/core/Fault.h"
#include "p4rt/core/Keeper.h"
#include "p4rt/core/Reader.h"
#include "p4rt/core/Reconciliation.h"
#include "p4rt/core/Restoration.h"
#include "sim/Service.h"

namespace P4rt {
namespace {

using p4::v1::ForwardingPipelineConfig;
using p4::v1::GetForwardingPipelineConfigRequest;
using p4::v1::SetForwardingPipelineConfigRequest;
using p4::v1::WriteRequest;

RpcStatus statusOf(const Fault& fault) { return {.code = fault.code, .message = fault.message}; }

p4::v1::Error errorOf(const std::optional<Fault>& fault) {
  p4::v1::Error error;
  if (fault) {
    error.set_canonical_code(static_cast<std::int32_t>(fault->code));
    error.set_message(fault->message);
    error.set_space("ostra");
    error.set_code(fault->ostraCode);
  }
  return error;
}

// If a part of the request has failed: one error for each part, in order (P4Runtime 1.4.1, 12.3).
RpcStatus statusOf(const std::vector<std::optional<Fault>>& outcomes, std::string_view parts) {
  RpcStatus status;
  std::size_t failed = 0;
  for (const auto& outcome : outcomes) {
    failed += outcome ? 1U : 0U;
  }
  if (failed == 0) {
    return status;
  }
  status.code = Code::unknown_;
  status.message = std::to_string(failed) + " of " + std::to_string(outcomes.size()) + " ";
  status.message.append(parts).append(" failed");
  for (const auto& outcome : outcomes) {
    status.details.push_back(errorOf(outcome));
  }
  return status;
}

RpcStatus noPipeline() {
  return {.code = Code::failedPrecondition_, .message = "no forwarding pipeline is set"};
}

// A configuration that the switch can realize, with its pipeline.
struct Realized {
  // Throws: Fault when the switch cannot realize it.
  explicit Realized(const ForwardingPipelineConfig& given)
      : config{given}, pipeline{std::make_unique<Pipeline>(given.p4info())} {}

  ForwardingPipelineConfig config;
  std::unique_ptr<Pipeline> pipeline;
};

}  // namespace

class Engine::State {
 public:
  State(Sim::Service& service, Timers& timers, EngineOptions options)
      : service_{service},
        timers_{timers},
        options_{options},
        keeper_{options.keeps ? &service.blobs() : nullptr} {}

  std::vector<std::string> resume();

  // A queued request. It runs when all requests before it have been answered, and ends by calling
  // finished(). `refused`: the engine is shutting down.
  using Task = std::function<void(bool refused)>;
  void accept(Task task) {
    tasks_.push_back(std::move(task));
    pump();
  }
  void finished() {
    busy_ = false;
    pump();
  }
  void answer(const Done& done, RpcStatus status) {
    done(std::move(status));
    finished();
  }
  // Queues a request that ends with a status. `work` is called with `done`, and either answers or
  // throws Fault. While the engine is shutting down the request is answered with UNAVAILABLE.
  template <class Work>
  void acceptRequest(Done done, Work work) {
    accept([this, done = std::move(done), work = std::move(work)](bool refused) {
      if (refused) {
        answer(done, {.code = Code::unavailable_, .message = "the server is shutting down"});
        return;
      }
      try {
        work(done);
      } catch (const Fault& fault) {
        answer(done, statusOf(fault));
      }
    });
  }

  void write(const WriteRequest& request, const Done& done);
  void read(const p4::v1::ReadRequest& request, const Emit& emit, const Done& done);
  void setPipeline(const SetForwardingPipelineConfigRequest& request, const Done& done);
  void getPipeline(const GetForwardingPipelineConfigRequest& request,
                   p4::v1::GetForwardingPipelineConfigResponse& response) const;
  void stop() noexcept { stopping_ = true; }
  [[nodiscard]] bool hasPipeline() const noexcept { return committed_.has_value(); }
  void verify() const;

 private:
  void pump();
  void run(const WriteRequest& request, std::function<void(Batch::Outcomes&&)> done);
  // Commits a configuration and deletes all entities. `saved`: it is the saved configuration, and
  // is saved again if this fails.
  void commit(Realized&& next, const Done& done, bool saved = false);
  void reconcile(Realized&& next, const Done& done);
  // Carries out removal_, then installs the new configuration and store.
  void replace(Realized&& next, std::unique_ptr<Store> store, const Done& done, bool saved);

  Sim::Service& service_;
  Timers& timers_;
  const EngineOptions options_;
  Keeper keeper_;

  std::deque<Task> tasks_;
  bool busy_ = false;
  bool pumping_ = false;
  bool stopping_ = false;

  std::optional<Realized> committed_;
  std::unique_ptr<Store> store_ = std::make_unique<Store>();  // points into committed_->pipeline
  std::optional<Realized> saved_;
  WriteRequest removal_;
  std::unique_ptr<Batch> batch_;
};

std::vector<std::string> Engine::State::resume() {
  const bool nothing = storesNothing(service_);
  try {
    if (!keeper_.open()) {
      if (!nothing) {
        throw ResumeError{"what is kept is no P4Runtime server's"};
      }
      keeper_.create();
      return {};
    }
    if (const auto config = keeper_.config(Keeper::Kind::committed_)) {
      committed_.emplace(*config);
    } else if (!nothing) {
      throw ResumeError{"the forwarding pipeline that was kept is damaged"};
    }
    if (const auto config = keeper_.config(Keeper::Kind::saved_)) {
      saved_.emplace(*config);
    }
  } catch (const Fault& fault) {
    throw ResumeError{"the forwarding pipeline that was kept: " + fault.message};
  }
  return committed_ ? restore(*committed_->pipeline, keeper_, *store_, service_)
                    : std::vector<std::string>{};
}

void Engine::State::pump() {
  if (pumping_) {
    return;
  }
  pumping_ = true;
  while (!busy_ && !tasks_.empty()) {
    const Task task = std::move(tasks_.front());
    tasks_.pop_front();
    busy_ = true;
    task(stopping_);
  }
  pumping_ = false;
}

void Engine::State::run(const WriteRequest& request, std::function<void(Batch::Outcomes&&)> done) {
  batch_ =
      std::make_unique<Batch>(Batch::Parts{*committed_->pipeline, *store_, keeper_, service_,
                                           timers_, options_.writeTimeout},
                              request, [this, done = std::move(done)](Batch::Outcomes&& outcomes) {
                                const auto over = std::move(batch_);
                                done(std::move(outcomes));
                              });
  batch_->start();
}

void Engine::State::write(const WriteRequest& request, const Done& done) {
  if (!committed_) {
    answer(done, noPipeline());
    return;
  }
  if (request.atomicity() == WriteRequest::DATAPLANE_ATOMIC) {
    refuse(Code::unimplemented_, "DATAPLANE_ATOMIC is not offered");
  }
  if (!WriteRequest::Atomicity_IsValid(request.atomicity())) {
    refuse(Code::invalidArgument_,
           "atomicity " + std::to_string(request.atomicity()) + " is unknown");
  }
  run(request,
      [this, done](Batch::Outcomes&& outcomes) { answer(done, statusOf(outcomes, "updates")); });
}

void Engine::State::read(const p4::v1::ReadRequest& request, const Emit& emit, const Done& done) {
  if (!committed_) {
    answer(done, noPipeline());
    return;
  }
  Reader reader{*committed_->pipeline, *store_, service_, readChunk, emit};
  std::vector<std::optional<Fault>> outcomes(static_cast<std::size_t>(request.entities_size()));
  for (int at = 0; at < request.entities_size(); ++at) {
    try {
      reader.read(request.entities(at));
    } catch (Fault& fault) {
      outcomes[static_cast<std::size_t>(at)] = std::move(fault);
    }
  }
  reader.flush();
  answer(done, statusOf(outcomes, "filters"));
}

void Engine::State::setPipeline(const SetForwardingPipelineConfigRequest& request,
                                const Done& done) {
  using Request = SetForwardingPipelineConfigRequest;
  if (request.action() == Request::COMMIT) {
    if (request.has_config()) {
      refuse(Code::invalidArgument_, "COMMIT takes the saved configuration, and no other");
    }
    if (!saved_) {
      refuse(Code::notFound_, "no configuration is saved");
    }
    commit(*std::exchange(saved_, std::nullopt), done, true);
    return;
  }
  if (request.action() == Request::UNSPECIFIED || !Request::Action_IsValid(request.action())) {
    refuse(Code::invalidArgument_, "action " + std::to_string(request.action()) + " is unknown");
  }
  if (!request.config().has_p4info()) {
    refuse(Code::invalidArgument_, "the request has no P4Info");
  }
  Realized next{request.config()};
  switch (request.action()) {
    case Request::VERIFY_AND_SAVE:
      keeper_.noteSaved(next.config);
      keeper_.keepNoted();
      saved_ = std::move(next);
      break;
    case Request::VERIFY_AND_COMMIT:
      commit(std::move(next), done);
      return;
    case Request::RECONCILE_AND_COMMIT:
      reconcile(std::move(next), done);
      return;
    default:
      break;
  }
  answer(done, {});
}

void Engine::State::commit(Realized&& next, const Done& done, bool saved) {
  removal_.clear_updates();
  if (committed_) {
    appendClearing(*committed_->pipeline, *store_, service_, removal_);
  }
  replace(std::move(next), std::make_unique<Store>(), done, saved);
}

void Engine::State::reconcile(Realized&& next, const Done& done) {
  if (!committed_) {
    commit(std::move(next), done);
    return;
  }
  Reconciliation outcome =
      P4rt::reconcile(*committed_->pipeline, *store_, service_, *next.pipeline);
  removal_ = std::move(outcome.removal);
  replace(std::move(next), std::move(outcome.retained), done, false);
}

void Engine::State::replace(Realized&& next, std::unique_ptr<Store> store, const Done& done,
                            bool saved) {
  keeper_.noteCommitted(next.config);
  // std::function needs copyable captures, and these objects cannot be copied.
  const auto after = std::make_shared<std::pair<Realized, std::unique_ptr<Store>>>(
      std::move(next), std::move(store));
  const auto install = [this, after, done] {
    after->second->adoptHidden(*store_);
    store_ = std::move(after->second);
    committed_.emplace(std::move(after->first));
    saved_.reset();
    answer(done, {});
  };
  const auto fail = [this, after, done, saved](const Fault& fault) {
    if (saved) {
      saved_ = std::move(after->first);
    }
    answer(done, statusOf(fault));
  };
  if (removal_.updates().empty()) {
    try {
      keeper_.keepNoted();
    } catch (const Fault& fault) {
      fail(fault);
      return;
    }
    install();
    return;
  }
  removal_.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
  run(removal_, [install, fail](Batch::Outcomes&& outcomes) {
    for (const auto& outcome : outcomes) {
      if (outcome && outcome->code != Code::aborted_) {
        fail({outcome->code, "the present entities could not be deleted: " + outcome->message});
        return;
      }
    }
    install();
  });
}

void Engine::State::getPipeline(const GetForwardingPipelineConfigRequest& request,
                                p4::v1::GetForwardingPipelineConfigResponse& response) const {
  using Request = GetForwardingPipelineConfigRequest;
  if (!Request::ResponseType_IsValid(request.response_type())) {
    refuse(Code::invalidArgument_,
           "response type " + std::to_string(request.response_type()) + " is unknown");
  }
  if (!committed_) {
    return;
  }
  const ForwardingPipelineConfig& stored = committed_->config;
  const Request::ResponseType type = request.response_type();
  ForwardingPipelineConfig& config = *response.mutable_config();
  if (type == Request::ALL || type == Request::P4INFO_AND_COOKIE) {
    *config.mutable_p4info() = stored.p4info();
  }
  if (type == Request::ALL || type == Request::DEVICE_CONFIG_AND_COOKIE) {
    config.set_p4_device_config(stored.p4_device_config());
  }
  if (stored.has_cookie()) {
    *config.mutable_cookie() = stored.cookie();
  }
}

void Engine::State::verify() const {
  Korm::assertTrue(!busy_ && tasks_.empty(), "nothing is under way");
  if (committed_) {
    audit(*committed_->pipeline, *store_, service_);
  }
}

Engine::Engine(Sim::Service& service, Timers& timers, EngineOptions options)
    : state_{std::make_unique<State>(service, timers, options)} {}

Engine::~Engine() = default;

void Engine::write(const WriteRequest& request, Done done) {
  state_->acceptRequest(std::move(done), [this, &request](const Done& answered) {
    state_->write(request, answered);
  });
}

void Engine::read(const p4::v1::ReadRequest& request, Emit emit, Done done) {
  state_->acceptRequest(std::move(done),
                        [this, &request, emit = std::move(emit)](const Done& answered) {
                          state_->read(request, emit, answered);
                        });
}

void Engine::setPipeline(const SetForwardingPipelineConfigRequest& request, Done done) {
  state_->acceptRequest(std::move(done), [this, &request](const Done& answered) {
    state_->setPipeline(request, answered);
  });
}

void Engine::getPipeline(const GetForwardingPipelineConfigRequest& request,
                         p4::v1::GetForwardingPipelineConfigResponse& response, Done done) {
  state_->acceptRequest(std::move(done), [this, &request, &response](const Done& answered) {
    state_->getPipeline(request, response);
    state_->answer(answered, {});
  });
}

void Engine::afterAccepted(std::function<void()> done) {
  state_->accept([this, done = std::move(done)](bool /*refused*/) {
    done();
    state_->finished();
  });
}

void Engine::shutDown(std::function<void()> done) {
  state_->stop();
  afterAccepted(std::move(done));
}

std::vector<std::string> Engine::resume() { return state_->resume(); }

bool Engine::hasPipeline() const noexcept { return state_->hasPipeline(); }

void Engine::verify() const { state_->verify(); }

}  // namespace P4rt
