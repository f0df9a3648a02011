// The hash map under keyed collections.

#include "platform/Korm/Hash.h"
#include "platform/Korm/HashMap.h"
#include "tests/Testing.h"

namespace Korm {
namespace {

// Hashes that leave little to tell keys apart.
struct CrowdedHash {
  std::uint32_t operator()(std::uint64_t key) const noexcept {
    return static_cast<std::uint32_t>(key % 5) * 0x20000007U;
  }
};
// Agrees in the upper 22 bits, which choose the segment, and not in the next one.
struct UpperHash {
  std::uint32_t operator()(std::uint64_t key) const noexcept {
    return 0xFFFFFC00U | (key % 2 == 0 ? 0U : 0x200U);
  }
};

// Does random things to a map and to a standard map, and compares them.
template <class HashOf>
class MapAndModel {
 public:
  MapAndModel(std::uint32_t seed, std::uint64_t keys) : random_{seed}, keys_{keys}, fresh_{keys} {}

  void run(int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      change(random_() % keys_, std::to_string(step));
      if (random_() % 400 == 0) {
        walk();
        compare();
      }
      if (random_() % 5'000 == 0) {
        map_.clear();
        model_.clear();
        EXPECT_TRUE(map_.begin() == map_.end());
      }
    }
    compare();
  }

 private:
  void change(std::uint64_t key, const std::string& value) {
    const auto action = random_() % 8;
    if (action < 4) {
      const auto [entry, created] = map_.tryEmplace(key, value);
      EXPECT_EQ(created, model_.try_emplace(key, value).second);
      places_[key] = &entry.value;
    } else if (action < 6) {
      EXPECT_EQ(map_.erase(key), model_.erase(key) == 1);
    } else {
      EXPECT_EQ(map_.find(key) != nullptr, model_.contains(key));
    }
  }
  // A walk meets what is there throughout, once, whatever else comes and goes.
  void walk() {
    std::set<std::uint64_t> met;
    std::set<std::uint64_t> due;
    for (const auto& entry : model_) {
      due.insert(entry.first);
    }
    for (const auto& entry : map_) {
      ASSERT_TRUE(met.insert(entry.key).second) << "met twice";
      due.erase(entry.key);
      const std::uint64_t gone = random_() % 2 == 0 ? entry.key : random_() % keys_;
      EXPECT_EQ(map_.erase(gone), model_.erase(gone) == 1);
      due.erase(gone);
      if (met.size() % 2 == 0 && met.size() < keys_) {
        places_[fresh_] = &map_.tryEmplace(fresh_, "").first.value;
        model_[fresh_++] = "";
      }
    }
    EXPECT_TRUE(due.empty()) << "passed over";
  }
  void compare() {
    map_.verify();
    ASSERT_EQ(map_.size(), model_.size());
    for (const auto& entry : std::as_const(map_)) {
      ASSERT_EQ(model_.at(entry.key), entry.value);
      ASSERT_EQ(places_.at(entry.key), &entry.value) << "an element has moved";
    }
  }

  std::mt19937 random_;
  const std::uint64_t keys_;
  std::uint64_t fresh_;
  HashMap<std::uint64_t, std::string, HashOf> map_;
  std::unordered_map<std::uint64_t, std::string> model_;
  std::unordered_map<std::uint64_t, const std::string*> places_;
};

TEST(HashMap, AgreesWithTheStandardMap) {
  MapAndModel<Hash<std::uint64_t>>{1, 40}.run(20'000);
  MapAndModel<Hash<std::uint64_t>>{2, 5'000}.run(60'000);
  MapAndModel<CrowdedHash>{3, 300}.run(20'000);
}

TEST(HashMap, RefusesMoreKeysOfOneHashThanASegmentHoldsAndStaysAsItIs) {
  HashMap<std::uint64_t, int, UpperHash> map;
  constexpr std::uint64_t most = 448;
  for (std::uint64_t key = 0; key < most; ++key) {
    map.tryEmplace(key, 1);
  }
  EXPECT_THROW(map.tryEmplace(most, 1), std::length_error);
  map.verify();
  EXPECT_EQ(map.size(), most);
  EXPECT_EQ(map.find(most), nullptr);
  EXPECT_TRUE(map.erase(std::uint64_t{7}));
  EXPECT_TRUE(map.tryEmplace(most, 1).second);
  map.verify();
}

TEST(HashMap, LetsAnElementThatGoesLookAtTheMapAndChangeIt) {
  HashMap<int, std::shared_ptr<void>> map;
  const auto doAtEnd = [](const std::function<void()>& action) {
    return std::shared_ptr<void>{nullptr, [action](void*) { action(); }};
  };
  int walked = -1;
  const auto walk = [&] {
    walked = 0;
    for (const auto& entry : map) {
      walked += entry.key > 0 ? 1 : 0;
    }
  };
  const auto change = [&] {
    EXPECT_EQ(map.find(1), nullptr);
    EXPECT_FALSE(map.erase(1));
    map.erase(2);
    map.tryEmplace(1, doAtEnd(walk));
  };
  map.tryEmplace(1, doAtEnd(change));
  map.tryEmplace(2, doAtEnd(walk));
  map.tryEmplace(3, doAtEnd(walk));
  EXPECT_TRUE(map.erase(1));
  EXPECT_EQ(walked, 1);
  EXPECT_EQ(map.size(), 2U);
  map.verify();
  map.clear();
  EXPECT_EQ(walked, 0);
  EXPECT_EQ(map.find(3), nullptr);
}

}  // namespace
}  // namespace Korm
