#include "p4rt/core/Arbitration.h"
#include "tests/Testing.h"

namespace P4rt {
namespace {

constexpr std::uint64_t device = 1;

// Random controllers of two roles. Their standings, as they know them from the notices alone, are
// compared with those that follow from their claims.
class RandomArbitration {
 public:
  explicit RandomArbitration(unsigned seed) : random_{seed} {}

  void step() {
    const StreamId stream = pick(8);
    const Role role = roleOf(stream);
    Realm& realm = realms_[role];
    const auto action = pick(6);
    if (action == 0) {
      hear(arbitration_.gone(stream), {});
      drop(stream);
    } else if (action == 1 && mayWrite(realm)) {
      arbitration_.writeBegins(role);
      realm.writes.push_back(*realm.primary);
    } else if (action == 2 && !realm.writes.empty()) {
      realm.writes.pop_back();
      hear(arbitration_.writeEnds(role), realm.primary);
    } else if (action > 2) {
      claim(stream);
    }
    compare();
  }

 private:
  struct Controller {
    // Whether it has been told that it is the primary.
    [[nodiscard]] bool mayWrite() const { return heard && heard->standing == Standing::primary_; }

    std::optional<ElectionId> id;
    std::optional<Notice> heard;
  };
  struct Realm {
    std::map<StreamId, Controller> controllers;
    std::optional<ElectionId> highest;
    std::optional<StreamId> primary;
    // The primary of each Write in progress.
    std::vector<StreamId> writes;
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
    const std::optional<ElectionId> id = someId();
    const bool used = std::any_of(
        realm.controllers.begin(), realm.controllers.end(),
        [&](const auto& other) { return other.first != stream && id && other.second.id == id; });
    const Arbitration::Outcome outcome =
        arbitration_.claim(stream, {.device = device, .role = roleOf(stream), .electionId = id});
    ASSERT_EQ(outcome.refusal.code == Code::invalidArgument_, used);
    if (used) {
      drop(stream);
      return hear(outcome.notices, {});
    }
    realm.controllers[stream].id = id;
    const bool wasPrimary = realm.primary == stream;
    if (id && id >= realm.highest) {
      realm.highest = id;
      realm.primary = stream;
    } else if (wasPrimary) {
      realm.primary.reset();
    }
    const bool concernsAll = wasPrimary || realm.primary == stream;
    hear(outcome.notices, concernsAll ? std::nullopt : std::optional{stream});
  }

  void drop(StreamId stream) {
    Realm& realm = realms_[roleOf(stream)];
    realm.controllers.erase(stream);
    if (realm.primary == stream) {
      realm.primary.reset();
    }
  }

  // Whether there is a primary that knows that it is.
  static bool mayWrite(const Realm& realm) {
    return realm.primary && realm.controllers.at(*realm.primary).mayWrite();
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
      if (notice.standing == Standing::primary_) {
        EXPECT_THAT(realm.writes, testing::Each(notice.to)) << "writes of the one before it";
      }
      EXPECT_LE(std::count_if(realm.controllers.begin(), realm.controllers.end(),
                              [](const auto& one) { return one.second.mayWrite(); }),
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
