#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "p4rt/core/Arbitration.h"
#include "tests/Sanitizers.h"

namespace P4rt {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t device = 1;

Claim claimOf(std::uint64_t low, Role role = {}) {
  return {.device = device, .role = std::move(role), .electionId = ElectionId{0, low}};
}
Notice notice(StreamId to, Standing standing, std::uint64_t highest) {
  return {.to = to, .standing = standing, .highest = ElectionId{0, highest}};
}

TEST(ArbitrationTest, ComparesIdsAsNumbersOf128BitsAndTellsNoIdFromZero) {
  Arbitration arbitration{device};
  EXPECT_THAT(arbitration.claim(1, {.device = device}).notices,
              ElementsAre(Notice{.to = 1, .standing = Standing::noPrimary_}));
  EXPECT_THAT(arbitration.claim(2, claimOf(0)).notices,
              ElementsAre(notice(1, Standing::backup_, 0), notice(2, Standing::primary_, 0)));
  EXPECT_TRUE(arbitration.check(device, {}, ElectionId{0, 0}).ok());
  EXPECT_EQ(arbitration.check(device, {}, std::nullopt).code, Code::permissionDenied_);
  Claim high{.device = device, .electionId = ElectionId{1, 0}};
  EXPECT_EQ(arbitration.claim(3, high).notices.size(), 3U);
  EXPECT_TRUE(arbitration.isPrimary(3));
  EXPECT_EQ(arbitration.claim(4, claimOf(~std::uint64_t{0})).notices.size(), 1U);
  EXPECT_TRUE(arbitration.isPrimary(3));
}

TEST(ArbitrationTest, RefusesWhatEndsAStreamAndTellsTheOthersThatItsPrimaryWent) {
  Arbitration arbitration{device};
  const auto refusal = [&](StreamId stream, const Claim& claim) {
    return arbitration.claim(stream, claim).refusal.code;
  };
  EXPECT_EQ(refusal(1, {.device = 2}), Code::notFound_);
  EXPECT_EQ(refusal(1, {.device = device, .roleConfig = true}), Code::invalidArgument_);
  arbitration.claim(1, claimOf(5));
  EXPECT_EQ(refusal(2, claimOf(5)), Code::invalidArgument_);
  EXPECT_EQ(refusal(3, claimOf(5, {.name = "other"})), Code::ok_) << "a realm of its own";
  arbitration.claim(2, claimOf(4));

  const auto outcome = arbitration.claim(1, claimOf(6, {.name = "other"}));
  EXPECT_EQ(outcome.refusal.code, Code::failedPrecondition_);
  EXPECT_THAT(outcome.notices, ElementsAre(notice(2, Standing::noPrimary_, 5)));
  EXPECT_EQ(refusal(2, {.device = 7}), Code::failedPrecondition_);

  for (StreamId stream = 10; stream < 9 + Arbitration::mostStreams; ++stream) {
    ASSERT_EQ(refusal(stream, claimOf(stream)), Code::ok_);
  }
  EXPECT_EQ(refusal(9, claimOf(9)), Code::resourceExhausted_);
  arbitration.gone(10);
  EXPECT_EQ(refusal(9, claimOf(9)), Code::ok_);
}

TEST(ArbitrationTest, TellsANewPrimaryOnceTheWritesOfTheOldOneAreThrough) {
  Arbitration arbitration{device};
  arbitration.claim(1, claimOf(1));
  arbitration.writeBegins({});
  arbitration.writeBegins({});
  EXPECT_THAT(arbitration.claim(2, claimOf(2)).notices,
              ElementsAre(notice(1, Standing::backup_, 2)));
  EXPECT_EQ(arbitration.check(device, {}, ElectionId{0, 1}).code, Code::permissionDenied_);
  EXPECT_EQ(arbitration.check(device, {}, ElectionId{0, 2}).code, Code::permissionDenied_);
  EXPECT_THAT(arbitration.writeEnds({}), IsEmpty());
  EXPECT_THAT(arbitration.writeEnds({}), ElementsAre(notice(2, Standing::primary_, 2)));
  EXPECT_TRUE(arbitration.check(device, {}, ElectionId{0, 2}).ok());

  // The old one's writes outlive its stream as well.
  arbitration.writeBegins({});
  arbitration.gone(2);
  EXPECT_THAT(arbitration.claim(1, claimOf(1)).notices,
              ElementsAre(notice(1, Standing::noPrimary_, 2)));
  EXPECT_THAT(arbitration.claim(1, claimOf(2)).notices, IsEmpty());
  EXPECT_THAT(arbitration.writeEnds({}), ElementsAre(notice(1, Standing::primary_, 2)));
}

// Random controllers of two roles. What they believe, from the notices alone, is compared with what the
// claims that stand amount to.
class RandomArbitration {
 public:
  explicit RandomArbitration(unsigned seed) : random_{seed} {}

  void step() {
    const StreamId stream = pick(8);
    switch (pick(6)) {
      case 0:
        hear(arbitration_.gone(stream), {});
        drop(stream);
        break;
      case 1:
        beginWrite(roleOf(stream));
        break;
      case 2:
        endWrite(roleOf(stream));
        break;
      default:
        claim(stream);
    }
    compare();
  }

 private:
  struct Controller {
    std::optional<ElectionId> id;
    std::optional<Notice> heard;
  };
  struct Realm {
    std::map<StreamId, Controller> controllers;
    std::optional<ElectionId> highest;
    std::optional<StreamId> primary;
    // Which primary each write under way was for.
    std::vector<StreamId> writes;
    std::uint64_t primaries = 0;
  };

  std::uint64_t pick(std::uint64_t below) {
    return std::uniform_int_distribution<std::uint64_t>{0, below - 1}(random_);
  }
  static Role roleOf(StreamId stream) { return {.name = stream % 2 == 0 ? "" : "odd"}; }
  std::optional<ElectionId> someId() {
    const std::uint64_t id = pick(7);
    return id == 6 ? std::nullopt : std::optional{ElectionId{id / 3, id % 3}};
  }

  void claim(StreamId stream) {
    Realm& realm = realms_[roleOf(stream)];
    const Claim claim{.device = device, .role = roleOf(stream), .electionId = someId()};
    const bool used =
        std::any_of(realm.controllers.begin(), realm.controllers.end(), [&](const auto& other) {
          return other.first != stream && claim.electionId && other.second.id == claim.electionId;
        });
    const Arbitration::Outcome outcome = arbitration_.claim(stream, claim);
    ASSERT_EQ(outcome.refusal.code == Code::invalidArgument_, used);
    if (used) {
      drop(stream);
      hear(outcome.notices, {});
      return;
    }
    realm.controllers[stream].id = claim.electionId;
    const auto before = realm.primary;
    if (claim.electionId && (!realm.highest || *claim.electionId >= *realm.highest)) {
      realm.highest = claim.electionId;
      realm.primary = stream;
    } else if (realm.primary == stream) {
      realm.primary.reset();
    }
    const bool concernsAll = before == stream || realm.primary == stream;
    hear(outcome.notices, concernsAll ? std::nullopt : std::optional{stream});
  }

  void drop(StreamId stream) {
    Realm& realm = realms_[roleOf(stream)];
    realm.controllers.erase(stream);
    if (realm.primary == stream) {
      realm.primary.reset();
    }
  }

  void beginWrite(const Role& role) {
    Realm& realm = realms_[role];
    if (mayWrite(realm)) {
      arbitration_.writeBegins(role);
      realm.writes.push_back(*realm.primary);
    }
  }
  void endWrite(const Role& role) {
    Realm& realm = realms_[role];
    if (!realm.writes.empty()) {
      realm.writes.pop_back();
      hear(arbitration_.writeEnds(role), realm.primary);
    }
  }

  // Whether the primary has been told that it is.
  static bool mayWrite(const Realm& realm) {
    if (!realm.primary) {
      return false;
    }
    const auto& heard = realm.controllers.at(*realm.primary).heard;
    return heard && heard->standing == Standing::primary_;
  }

  // `only`: nobody else is told anything.
  void hear(const std::vector<Notice>& notices, std::optional<StreamId> only) {
    std::set<StreamId> told;
    for (const Notice& notice : notices) {
      EXPECT_TRUE(told.insert(notice.to).second) << "told twice";
      EXPECT_TRUE(!only || only == notice.to) << "told for nothing";
      Realm& realm = realms_[roleOf(notice.to)];
      ASSERT_TRUE(realm.controllers.contains(notice.to));
      realm.controllers[notice.to].heard = notice;
      EXPECT_LE(std::count_if(realm.controllers.begin(), realm.controllers.end(),
                              [](const auto& controller) {
                                const auto& heard = controller.second.heard;
                                return heard && heard->standing == Standing::primary_;
                              }),
                1);
    }
  }

  void compare() {
    for (auto& [role, realm] : realms_) {
      for (const auto& [stream, controller] : realm.controllers) {
        const bool primary = realm.primary == stream;
        ASSERT_EQ(arbitration_.isPrimary(stream), primary);
        if (primary && !mayWrite(realm)) {
          EXPECT_FALSE(realm.writes.empty()) << "nothing to wait for";
          continue;
        }
        ASSERT_TRUE(controller.heard);
        const Standing other = realm.primary ? Standing::backup_ : Standing::noPrimary_;
        EXPECT_EQ(controller.heard->standing, primary ? Standing::primary_ : other);
        EXPECT_EQ(controller.heard->highest, realm.highest);
      }
      for (std::uint64_t id = 0; id < 6; ++id) {
        const ElectionId tried{id / 3, id % 3};
        EXPECT_EQ(arbitration_.check(device, role, tried).ok(),
                  mayWrite(realm) && realm.controllers.at(*realm.primary).id == tried);
      }
    }
  }

  std::mt19937_64 random_;
  Arbitration arbitration_{device};
  std::map<Role, Realm> realms_;
};

TEST(ArbitrationTest, EveryControllerKnowsItsStandingWhateverHappens) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    RandomArbitration arbitration{seed};
    for (int step = 0; step < (TestSupport::threadSanitized ? 200 : 2000); ++step) {
      arbitration.step();
      ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed << " step " << step;
    }
  }
}

}  // namespace
}  // namespace P4rt
