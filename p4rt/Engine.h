// What a P4Runtime server does below its gRPC face: holds the pipeline and what is written,
// programs the switch, waits for the hardware, and answers.
//
//   P4rt::Engine engine{service, timers, {.writeTimeout = std::chrono::seconds{5}}};
//   engine.setPipeline(request, [](RpcStatus status) { ... });
//   engine.write(request, [](RpcStatus status) { ... });
//   engine.read(request, [](p4::v1::ReadResponse&& some) { ... }, [](RpcStatus status) { ... });
//
// Requests come from somebody who has checked device, role and mastership. The engine checks
// everything else, and looks at none of those fields.
//
// Write, Read and the two pipeline requests are answered in the order in which they were accepted,
// one at a time: each sees all of those before it and nothing of those behind it (P4Runtime 1.4.1,
// 12.1, 13.4). One that has nothing to wait for is answered before the call returns, otherwise its
// callback runs later, from a timer. Each callback runs once. It may call the engine again: what it
// asks for then is queued.
//
// A Write returns when the hardware has answered for every update, or when its time is up: what has
// no answer by then is undone and fails with DEADLINE_EXCEEDED. What failed leaves nothing behind
// in the switch.
//
// One that keeps what it holds does so in the shared memory of the service, so that another one
// goes on with it after its process has died: with every request that was answered with OK, and
// those that were not answered as a whole or not at all (of a Write that does not roll back a first
// part of the updates). What is read then is what it was; counters begin anew.
//
//   Sim::Service service{&sharedMemory};
//   P4rt::Engine engine{service, timers, {.keeps = true}};
//   for (const std::string& text : engine.resume()) ...
//   service.start();
//
// Thread and process rule: the activity thread.
// Ownership: service and timers outlive the engine, which is the only one to write flows, members
// and groups through the service. A request lives until its last callback has returned. When the
// engine is destroyed the callbacks that are left are dropped; shutDown() comes first where they
// matter.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/RpcStatus.h"
#include "p4rt/Timers.h"

namespace Sim {
class Service;
}

namespace P4rt {

struct EngineOptions {
  // How long the hardware may take to answer a Write.
  std::chrono::milliseconds writeTimeout{5000};
  bool keeps = false;
};

// What the shared memory holds cannot be gone on with.
class ResumeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Engine {
 public:
  using Done = std::function<void(RpcStatus)>;
  using Emit = std::function<void(p4::v1::ReadResponse&&)>;

  Engine(Sim::Service& service, Timers& timers, EngineOptions options = {});
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Goes on with what is kept, and begins to keep where nothing is. Returns a text for everything
  // that was damaged and is dropped. Throws ResumeError. Requires: the engine keeps, nothing has
  // been asked of it yet, and the service's library does not run.
  std::vector<std::string> resume();

  // FAILED_PRECONDITION without a pipeline, UNKNOWN with an Error per update if some update failed.
  void write(const p4::v1::WriteRequest& request, Done done);

  // Calls `emit` with at most readChunk entities at a time, then `done`. FAILED_PRECONDITION
  // without a pipeline. UNKNOWN with an Error per entity of the request if some filter made no
  // sense; the others are answered.
  static constexpr int readChunk = 256;
  void read(const p4::v1::ReadRequest& request, Emit emit, Done done);

  // All five actions.
  void setPipeline(const p4::v1::SetForwardingPipelineConfigRequest& request, Done done);
  // Fills `response`, which lives as long as the request.
  void getPipeline(const p4::v1::GetForwardingPipelineConfigRequest& request,
                   p4::v1::GetForwardingPipelineConfigResponse& response, Done done);

  // Calls `done` when everything accepted so far is answered, before the call returns if that is so
  // already.
  void afterAccepted(std::function<void()> done);

  // Finishes the request under way and answers all others, from now on as well, with UNAVAILABLE.
  // `done` is called when nothing is under way any more. Called once.
  void shutDown(std::function<void()> done);

  // Whether a pipeline is committed.
  [[nodiscard]] bool hasPipeline() const noexcept;

  // Asserts that what the engine holds is what the switch holds. Requires: nothing is under way.
  void verify() const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace P4rt
