// Delivery of changes to reactors, under everything that reactors may do meanwhile.

#include "platform/Korm/Notification.h"
#include "tests/Testing.h"

namespace Korm {
namespace {

using List = NotifieeList<const int&>;

// Random reactors that do random things to two lists while they are told, against a model that
// knows only the rules: of a change hear, in order, those that were attached when it was made and
// still are, without a break, and are switched on at their turn.
class RandomWorld {
 public:
  explicit RandomWorld(std::uint32_t seed) : random_{seed} {}

  void run(int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      act();
      if (pick(3) == 0) {
        change(pick(lists));
      }
    }
  }
  [[nodiscard]] int calls() const { return calls_; }

 private:
  static constexpr std::size_t lists = 2;
  static constexpr std::size_t reactors = 9;
  static constexpr std::size_t deepest = 3;

  class Actor final : public Notifiee<const int&> {
   public:
    Actor(RandomWorld& world, std::size_t self) : world_{world}, self_{self} {}
    void onAttribute(const int& change) override { world_.called(self_, change); }

   private:
    RandomWorld& world_;
    const std::size_t self_;
  };
  struct Slot {
    std::unique_ptr<Actor> actor;
    int attachment = 0;  // a number of its own for each stay in a list
  };
  struct Change {
    int number;
    std::vector<std::pair<std::size_t, int>> due;  // reactor and attachment
    std::size_t next = 0;
    std::optional<int> thrown = std::nullopt;
  };

  std::size_t pick(std::size_t count) { return random_() % count; }

  void attach(std::size_t self, std::size_t list) {
    Slot& slot = slots_[self];
    slot.attachment = ++lastAttachment_;
    lists_[list]->attach(*slot.actor);
    order_[list].emplace_back(self, slot.attachment);
  }
  void act() {
    const std::size_t self = pick(reactors);
    Slot& slot = slots_[self];
    const std::size_t kind = pick(9);
    if (kind == 8) {
      if (pick(40) == 0) {
        renew(pick(lists));
      }
    } else if (kind == 7) {
      if (changes_.size() < deepest) {
        change(pick(lists));
      }
    } else if (!slot.actor) {
      if (kind < 3) {
        slot.actor = std::make_unique<Actor>(*this, self);
        attach(self, pick(lists));
      }
    } else if (kind == 6) {
      slot.actor->hasNotificationActiveIs(pick(2) == 0);
    } else if (kind == 5) {
      slot = {};
    } else if (kind >= 3) {
      slot.actor->detach();
      slot.attachment = 0;
      if (kind == 3) {
        attach(self, pick(lists));
      }
    }
  }
  void renew(std::size_t list) {
    lists_[list] = std::make_unique<List>();
    for (const auto& [reactor, attachment] : order_[list]) {
      if (slots_[reactor].attachment == attachment) {
        EXPECT_FALSE(slots_[reactor].actor->attached());
        slots_[reactor].attachment = 0;
      }
    }
    order_[list].clear();
  }
  // The next reactor that the rules have in store for the innermost change, or none.
  std::optional<std::size_t> due() {
    Change& change = changes_.back();
    while (change.next < change.due.size()) {
      const auto [reactor, attachment] = change.due[change.next++];
      if (slots_[reactor].attachment == attachment &&
          slots_[reactor].actor->hasNotificationActive()) {
        return reactor;
      }
    }
    return std::nullopt;
  }
  void change(std::size_t list) {
    std::erase_if(order_[list],
                  [this](const auto& at) { return slots_[at.first].attachment != at.second; });
    const int number = ++lastChange_;
    changes_.push_back({.number = number, .due = order_[list]});
    std::optional<int> thrown;
    try {
      lists_[list]->notify(number);
    } catch (int exception) {
      thrown = exception;
    }
    EXPECT_EQ(due(), std::nullopt) << "somebody was passed over";
    EXPECT_EQ(thrown, changes_.back().thrown);
    changes_.pop_back();
  }
  void called(std::size_t self, int change) {
    ++calls_;
    ASSERT_EQ(change, changes_.back().number);
    ASSERT_EQ(due(), std::optional{self});
    for (std::size_t actions = pick(4); actions > 0; --actions) {
      act();
    }
    if (pick(6) == 0) {
      const int exception = ++lastException_;
      auto& thrown = changes_.back().thrown;
      thrown = thrown.value_or(exception);
      throw exception;
    }
  }

  std::mt19937 random_;
  std::array<std::unique_ptr<List>, lists> lists_{std::make_unique<List>(),
                                                  std::make_unique<List>()};
  std::array<Slot, reactors> slots_;
  std::array<std::vector<std::pair<std::size_t, int>>, lists> order_;
  std::vector<Change> changes_;
  int lastAttachment_ = 0;
  int lastChange_ = 0;
  int lastException_ = 0;
  int calls_ = 0;
};

TEST(DeliveryRandom, AgreesWithTheRulesWhateverReactorsDo) {
  int calls = 0;
  for (std::uint32_t seed = 1; seed <= 300 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    RandomWorld world{seed};
    world.run(200);
    calls += world.calls();
  }
  EXPECT_GT(calls, 50'000);
}

}  // namespace
}  // namespace Korm
