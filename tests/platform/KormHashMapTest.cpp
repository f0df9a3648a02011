// The hash map under keyed collections.

#include "platform/Korm/Hash.h"
#include "platform/Korm/HashMap.h"
#include "tests/Testing.h"

namespace Korm {
namespace {

// Hashes that leave little or nothing to tell keys apart.
struct CrowdedHash {
  std::uint32_t operator()(std::uint64_t key) const noexcept {
    return static_cast<std::uint32_t>(key % 5) * 0x20000007U;
  }
};
struct OneHash {
  std::uint32_t operator()(std::uint64_t) const noexcept { return 0xFFFFFFFFU; }
};
// Agrees in the upper 22 bits, which choose the segment, and not in the next one.
struct UpperHash {
  std::uint32_t operator()(std::uint64_t key) const noexcept {
    return 0xFFFFFC00U | (key % 2 == 0 ? 0U : 0x200U);
  }
};

template <class HashOf>
void compareWithStandardMap(std::uint32_t seed, std::uint64_t keys, int steps) {
  using Map = HashMap<std::uint64_t, std::string, HashOf>;
  std::mt19937 random{seed};
  Map map;
  std::unordered_map<std::uint64_t, std::string> model;
  std::unordered_map<std::uint64_t, const std::string*> places;
  std::uint64_t fresh = keys;
  const auto same = [&] {
    map.verify();
    ASSERT_EQ(map.size(), model.size());
    for (const auto& entry : std::as_const(map)) {
      ASSERT_EQ(model.at(entry.key), entry.value);
      ASSERT_EQ(places.at(entry.key), &entry.value) << "an element has moved";
    }
  };
  for (int step = 0; step < steps; ++step) {
    const std::uint64_t key = random() % keys;
    const auto action = random() % 8;
    if (action < 4) {
      const std::string value = std::to_string(step);
      const auto [entry, created] = map.tryEmplace(key, value);
      ASSERT_EQ(created, model.try_emplace(key, value).second);
      places[key] = &entry.value;
    } else if (action < 6) {
      ASSERT_EQ(map.erase(key), model.erase(key) == 1);
    } else {
      ASSERT_EQ(map.find(key) != nullptr, model.contains(key));
    }
    if (random() % 400 == 0) {
      // A walk meets what is there throughout, once, whatever else comes and goes.
      std::set<std::uint64_t> met;
      std::set<std::uint64_t> due;
      std::transform(model.begin(), model.end(), std::inserter(due, due.end()),
                     [](const auto& entry) { return entry.first; });
      for (const auto& entry : map) {
        ASSERT_TRUE(met.insert(entry.key).second) << "met twice";
        due.erase(entry.key);
        const std::uint64_t gone = random() % 2 == 0 ? entry.key : random() % keys;
        ASSERT_EQ(map.erase(gone), model.erase(gone) == 1);
        due.erase(gone);
        if (met.size() % 2 == 0 && met.size() < keys) {
          places[fresh] = &map.tryEmplace(fresh, "").first.value;
          model[fresh++] = "";
        }
      }
      ASSERT_TRUE(due.empty()) << "passed over";
      same();
    }
    if (random() % 5'000 == 0) {
      map.clear();
      model.clear();
      ASSERT_TRUE(map.begin() == map.end());
    }
  }
  same();
}

TEST(HashMap, AgreesWithTheStandardMap) {
  compareWithStandardMap<Hash<std::uint64_t>>(1, 40, 20'000);
  compareWithStandardMap<Hash<std::uint64_t>>(2, 5'000, 60'000);
}

TEST(HashMap, AgreesWithTheStandardMapWhenHashesCollide) {
  compareWithStandardMap<CrowdedHash>(3, 300, 20'000);
  compareWithStandardMap<OneHash>(4, 60, 10'000);
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
