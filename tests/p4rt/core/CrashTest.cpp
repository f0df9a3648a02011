// An engine is killed at any moment while a controller writes, and another one resumes.
//
// OSTRA_CRASH_ROUNDS and OSTRA_CRASH_SEED in the environment set its length and its seed.
#include <sys/mman.h>

#include "EngineFixture.h"
#include "tests/platform/ChildProcess.h"

namespace P4rtTest {
namespace {

// The cookie of a pipeline tells whether its action profile takes one shots, and whether it lacks
// the table l3Acl.
bool takesOneShots(std::uint64_t cookie) { return (cookie & 1U) != 0; }
bool isReduced(std::uint64_t cookie) { return (cookie & 2U) != 0; }

class P4rtCrash : public EngineTest {
 protected:
  // A Write or, if it has an action, a change of the pipeline.
  struct Request {
    WriteRequest write{};
    SetPipeline::Action action = SetPipeline::UNSPECIFIED;
    std::uint64_t cookie = 0;
  };
  struct Held {
    std::uint64_t cookie = 0;  // of the committed pipeline; 0 for none
    std::uint64_t saved = 0;   // of the saved one
    Model model{};
  };
  // How often the child has begun and done its work, in memory that it shares with its parent.
  struct Progress {
    std::atomic<unsigned> begun = 0;
    std::atomic<unsigned> done = 0;
  };

  P4rtCrash() : EngineTest{uniqueName("p4rt-crash")} {}

  // Depends on `held_` and the random numbers alone, so that the parent knows the requests of its
  // child.
  Request next() {
    const int kind = random_.below(24);
    const auto fresh = [this](std::uint64_t style) {
      return static_cast<std::uint64_t>(1 + random_.below(1 << 20)) << 2U |
             static_cast<std::uint64_t>(2 * random_.below(2)) | style;
    };
    const auto anyStyle = static_cast<std::uint64_t>(random_.below(2));
    if (kind == 0) {
      return {.action = SetPipeline::VERIFY_AND_SAVE, .cookie = fresh(anyStyle)};
    }
    if (kind == 1 || held_.cookie == 0) {
      return {.action = SetPipeline::VERIFY_AND_COMMIT, .cookie = fresh(anyStyle)};
    }
    if (kind == 2) {
      return {.action = SetPipeline::RECONCILE_AND_COMMIT, .cookie = fresh(held_.cookie & 1U)};
    }
    if (kind == 3) {
      return {.action = SetPipeline::COMMIT};
    }
    return {.write =
                random_.write(held_.model, takesOneShots(held_.cookie), !isReduced(held_.cookie))};
  }

  static p4::v1::ForwardingPipelineConfig configOf(std::uint64_t cookie) {
    p4::v1::ForwardingPipelineConfig config;
    if (cookie != 0) {
      *config.mutable_p4info() = shippedP4Info();
      config.set_p4_device_config(std::string("\0opaque", 7));
      config.mutable_cookie()->set_cookie(cookie);
    }
    if (isReduced(cookie)) {
      config.mutable_p4info()->mutable_tables()->DeleteSubrange(1, 1);
    }
    return config;
  }

  // What may be held after a request that was not answered. The last one is what is held when it
  // was.
  [[nodiscard]] std::vector<Held> outcomes(const Request& request) const {
    std::vector<Held> all{held_};
    switch (request.action) {
      case SetPipeline::UNSPECIFIED:
        for (const Model& model : held_.model.outcomes(request.write)) {
          all.push_back({held_.cookie, held_.saved, model});
        }
        break;
      case SetPipeline::VERIFY_AND_SAVE:
        all.push_back({held_.cookie, request.cookie, held_.model});
        break;
      case SetPipeline::RECONCILE_AND_COMMIT:
        all.push_back({request.cookie, 0,
                       isReduced(request.cookie) ? held_.model.without(l3AclId) : held_.model});
        break;
      case SetPipeline::COMMIT:
        all.push_back(held_.saved == 0 ? held_ : Held{held_.saved});
        break;
      default:
        all.push_back({request.cookie});
    }
    return all;
  }

  // Waits for the answer, on hardware that is slow.
  P4rt::RpcStatus answerTo(const auto& request) {
    const auto call = begin(request);
    while (!call->done) {
      ::usleep(100);
      runHardware();
    }
    return call->status;
  }

  void ask(const Request& request) {
    if (request.action == SetPipeline::UNSPECIFIED) {
      Model model = held_.model;
      model.answered(request.write, wordsOf(answerTo(request.write)));
      return;
    }
    SetPipeline asked;
    asked.set_action(request.action);
    if (request.action != SetPipeline::COMMIT) {
      *asked.mutable_config() = configOf(request.cookie);
    }
    const bool lacks = request.action == SetPipeline::COMMIT && held_.saved == 0;
    EXPECT_EQ(answerTo(asked).code, lacks ? P4rt::Code::notFound_ : P4rt::Code::ok_);
  }

  // Checks that one of these is held.
  void compare(const std::vector<Held>& possible) {
    const auto config = configured();
    const std::uint64_t cookie = config.cookie().cookie();
    EXPECT_EQ(config.SerializeAsString(), configOf(cookie).SerializeAsString());
    const Texts seen = cookie == 0 ? Texts{} : everything();
    const auto found = std::find_if(possible.begin(), possible.end(), [&](const Held& held) {
      return held.cookie == cookie && held.model.everything() == seen;
    });
    ASSERT_NE(found, possible.end()) << "cookie " << cookie << testing::PrintToString(seen);
    engine->verify();
    held_ = *found;
    if (possible.back().saved != held_.saved && possible.back().cookie == cookie) {
      // Whether a pipeline was saved shows when it is committed.
      const bool had = setPipeline(SetPipeline::COMMIT).ok();
      const std::uint64_t committed = configured().cookie().cookie();
      EXPECT_TRUE(committed == possible.back().saved || committed == held_.saved || !had);
      EXPECT_TRUE(had || held_.saved == 0);
      held_ = had ? Held{committed} : held_;
    }
  }

  // A child resumes, and repeats the work until it is killed or a check fails. Then this process
  // resumes. `early`: the child may be killed while it resumes.
  template <class Work>
  void killWithin(int microseconds, bool early, Work work) {
    const auto delay = static_cast<useconds_t>(random_.below(microseconds));
    progress_.begun = progress_.done = 0;
    die();
    ChildProcess child{[&] {
      boot(Sim::Leftover::resume_);
      while (!HasFailure()) {
        ++progress_.begun;
        work();
        ++progress_.done;
      }
    }};
    waitFor([&] { return early || progress_.begun > 0; });
    ::usleep(delay);
    ASSERT_TRUE(child.kill()) << "ended by itself";
    boot(Sim::Leftover::resume_);
  }

  void round() {
    const bool early = random_.oneIn(4);
    const bool slow = !random_.oneIn(3);  // so that the kill may hit the middle of a Write
    ASSERT_NO_FATAL_FAILURE(killWithin(30'000, early, [&] {
      const Request request = next();
      const std::vector<Held> possible = outcomes(request);
      agent->automaticIs(!slow);
      ask(request);
      held_ = possible.back();
    }));
    for (unsigned done = progress_.done; done > 0; --done) {
      held_ = outcomes(next()).back();
    }
    compare(progress_.begun == progress_.done ? std::vector{held_} : outcomes(next()));
  }

  RandomUpdates random_{std::mt19937{static_cast<unsigned>(setting("OSTRA_CRASH_SEED", 1))}};

 private:
  Held held_;
  Progress& progress_ = *new (::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress;
};

TEST_F(P4rtCrash, WhatWasAnsweredStandsAndNothingElseIsTorn) {
  const unsigned long rounds = setting("OSTRA_CRASH_ROUNDS", 80);
  for (unsigned long number = 0; number < rounds && !HasFailure(); ++number) {
    SCOPED_TRACE("round " + std::to_string(number));
    round();
  }
}

TEST_F(P4rtCrash, AWriteThatRollsBackIsKeptAsAWhole) {
  constexpr int many = 100;
  // So much metadata takes long to keep.
  const std::string metadata = " metadata: '" + std::string(10'000, 'm') + "'";
  std::vector<Update> inserts;
  std::vector<Update> deletes;
  for (int number = 0; number < many; ++number) {
    inserts.push_back(insert(acl(number, drop() + metadata)));
    deletes.push_back(remove(acl(number)));
  }
  commitShipped();
  for (int round = 0; round < 25 && !HasFailure(); ++round) {
    ASSERT_NO_FATAL_FAILURE(killWithin(30'000, false, [&] {
      write(inserts, WriteRequest::ROLLBACK_ON_ERROR);
      write(deletes, WriteRequest::ROLLBACK_ON_ERROR);
    }));
    const std::size_t kept = everything().size();
    EXPECT_TRUE(kept == 0 || kept == many) << kept;
    engine->verify();
    if (kept != 0) {
      EXPECT_THAT(write(deletes), ElementsAre("OK"));
    }
  }
}

}  // namespace
}  // namespace P4rtTest
