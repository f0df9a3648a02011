// The P4Runtime server without gRPC: stores the pipeline and the entities, programs the switch,
// waits for the hardware and answers the requests.
//
//   P4rt::Engine engine{service, timers, {.writeTimeout = std::chrono::seconds{5}}};
//   engine.setPipeline(request, [](RpcStatus status) { ... });
//   engine.write(request, [](RpcStatus status) { ... });
//   engine.read(request, [](p4::v1::ReadResponse&& some) { ... }, [](RpcStatus status) { ... });
//
// The caller has checked device, role and election id; the engine does not look at these fields. It
// checks everything else.
//
// Write, Read and the two pipeline requests are carried out one at a time, in the order of the
// calls. Each sees the effects of all requests before it, and of none after it (P4Runtime 1.4.1,
// 12.1, 13.4). `done` is called once: before the call returns if nothing has to be waited for,
// otherwise later, from a timer. A callback may call the engine again; that request is queued.
//
// A Write is answered when the hardware has answered every update, or when writeTimeout has passed.
// Updates without an answer by then are undone and fail with DEADLINE_EXCEEDED. A failed update
// leaves nothing in the switch.
//
// With the option `keeps` the engine keeps its state in the shared memory of the service. After a
// crash, resume() in the next process restores it: the effects of every request that was answered
// with OK. A request that was not answered has taken effect completely or not at all; of a Write
// with CONTINUE_ON_ERROR a prefix of the updates has. Counters start at 0.
//
//   Sim::Service service{&sharedMemory};
//   P4rt::Engine engine{service, timers, {.keeps = true}};
//   for (const std::string& text : engine.resume()) ...
//   service.start();
//
// Threads: the activity thread.
// Ownership: the service and the timers outlive the engine. Nobody else writes flows, members or
// groups through the service. A request outlives its last callback. Destroying the engine drops the
// callbacks that have not run; to have them called, wait for shutDown() first.
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
  // Whether the state is kept in shared memory. resume() must then be called first.
  bool keeps = false;
};

// The state in shared memory cannot be resumed; what() says why.
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

  // Restores the kept state, or starts with an empty one if nothing is kept. Returns a text for
  // each damaged entity, which is dropped.
  // Throws: ResumeError.
  // Requires: the engine has the option `keeps` and has had no request, and the library of the
  // service is not running.
  std::vector<std::string> resume();

  // Fails with FAILED_PRECONDITION when no pipeline is committed, and with UNKNOWN and an Error for
  // each update when an update failed.
  void write(const p4::v1::WriteRequest& request, Done done);

  // Calls `emit` with at most readChunk entities at a time, then `done`. Fails with
  // FAILED_PRECONDITION when no pipeline is committed, and with UNKNOWN and an Error for each
  // entity of the request when one of these filters is invalid. The other filters are answered.
  static constexpr int readChunk = 256;
  void read(const p4::v1::ReadRequest& request, Emit emit, Done done);

  // Supports all five actions (P4Runtime 1.4.1, 14).
  void setPipeline(const p4::v1::SetForwardingPipelineConfigRequest& request, Done done);
  // Fills in `response`, which must live as long as the request.
  void getPipeline(const p4::v1::GetForwardingPipelineConfigRequest& request,
                   p4::v1::GetForwardingPipelineConfigResponse& response, Done done);

  // Calls `done` when all requests so far have been answered; before this returns if they have.
  void afterAccepted(std::function<void()> done);

  // Lets the request in progress finish. Answers all others, queued or new, with UNAVAILABLE. Calls
  // `done` when every queued request has been answered.
  // Requires: called once.
  void shutDown(std::function<void()> done);

  // Whether a pipeline is committed.
  [[nodiscard]] bool hasPipeline() const noexcept;

  // Asserts that the store matches the switch (Audit.h).
  // Requires: no request is in progress, and the library of the service is running.
  void verify() const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace P4rt
