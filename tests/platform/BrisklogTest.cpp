// The trace: its text, its ring, and its readers in this and in other processes.
#include "ChildProcess.h"
#include "platform/Brisklog/Ring.h"
#include "platform/Brisklog/RingReader.h"
#include "platform/Brisklog/TextTrace.h"
#include "platform/Brisklog/TracePoint.h"
#include "platform/Korm/Clock.h"
#include "tests/Tampering.h"

// A value type of some library: a number in the ring, a name in the text.
namespace Shapes {
enum class Color { red_, green_ };
int printed = 0;
std::ostream& operator<<(std::ostream& stream, Color color) {
  ++printed;
  return stream << (color == Color::red_ ? "red" : "green");
}

struct Label {
  std::string name;
};
std::string_view brisklogArgument(const Label& label) { return label.name; }
}  // namespace Shapes

namespace {

using namespace TestSupport;

using namespace Brisklog;
using Shapes::Color;

constinit TraceHandle handle{"Shapes"};
constinit TracePoint plain{handle, 5, "Drawer::", "draw"};
constinit TracePoint flowPoint{
    handle, 5, "OstraSm::", "handleFlowConfigImpl", " insert flow:%s", "Ostra/OstraSm", 123};
constinit TracePoint pairPoint{handle, 7, "Drawer::", "pair", " %s then %s"};
constinit TracePoint countedPoint{handle, 7, "Writer::", "run", " %s %s %s"};

class BrisklogTest : public testing::Test {
 protected:
  BrisklogTest() { useRing({.records = 64}); }
  ~BrisklogTest() override {
    Korm::clockIs(nullptr);
    handle.levelIs(-1);
    textSinkIs(nullptr);
    useRing({.records = 64});
  }

  static void useRing(const RingOptions& options) {
    const auto previous = ringIs(Ring::create(options));
  }

  // What the sink is given from now on.
  void collectText(int level) {
    handle.levelIs(level);
    textSinkIs([this](const TextMessage& message) { texts_.emplace_back(message.text); });
  }

  static DecodedRecord last() {
    const auto records = RingReader::attach(ring()).newest(1);
    return records.empty() ? DecodedRecord{} : records.front();
  }

  static std::string shmName() { return uniqueName("/brisklog-test"); }

  Texts texts_;
};

TEST_F(BrisklogTest, TextAndRingSayTheSame) {
  collectText(7);
  const char* const nothing = nullptr;
  plain();
  pairPoint(true, false);
  pairPoint(std::int8_t{-128}, ~std::uint64_t{0});
  pairPoint(0.1, 1e300);
  pairPoint("100%s sure", std::string("%s"));
  pairPoint(nothing, std::string_view());
  pairPoint(Shapes::Label{"x"}, 'A');
  pairPoint(Bytes{"\x00\x7f\xff", 3}, Bytes{});
  pairPoint("alone");
  countedPoint(1, 2, 3, 4, 5, 6, 7, 8);

  const Texts expected{"Drawer::draw",
                       "Drawer::pair true then false",
                       "Drawer::pair -128 then 18446744073709551615",
                       "Drawer::pair 0.1 then 1e+300",
                       "Drawer::pair 100%s sure then %s",
                       "Drawer::pair (null) then ",
                       "Drawer::pair x then 65",
                       "Drawer::pair 007fff then ",
                       "Drawer::pair alone then %s",
                       "Writer::run 1 2 3 4 5 6 7 8"};
  EXPECT_EQ(texts_, expected);
  Texts decoded;
  for (const DecodedRecord& record : RingReader::attach(ring()).newest(64)) {
    decoded.push_back(record.text());
  }
  EXPECT_EQ(decoded, expected);
}

TEST_F(BrisklogTest, LevelOfTheHandleDecidesAboutTextAndNeverAboutTheRing) {
  Shapes::printed = 0;
  for (const int level : {-1, 4, 7}) {
    collectText(level);
    plain(level);
    pairPoint(Color::green_, level);
  }
  EXPECT_EQ(texts_, (Texts{"Drawer::draw 7", "Drawer::pair green then 7"}));
  EXPECT_EQ(Shapes::printed, 1) << "values are formatted only when their text is wanted";
  const auto records = RingReader::attach(ring()).newest(64);
  ASSERT_EQ(records.size(), 6U);
  EXPECT_EQ(records[1].text(), "Drawer::pair 1 then -1") << "an enumeration is its integer";
}

TEST_F(BrisklogTest, SinkLearnsWhereTheMessageComesFromAndMayTraceItself) {
  handle.levelIs(7);
  Texts seen;
  textSinkIs([&](const TextMessage& message) {
    seen.push_back(std::string(message.handle) + '|' + std::to_string(message.level) + '|' +
                   std::string(message.unit) + ':' + std::to_string(message.line) + '|' +
                   std::string(message.function));
    plain("from the sink");
  });
  flowPoint("flow-1");
  EXPECT_EQ(seen, Texts{"Shapes|5|Ostra/OstraSm:123|handleFlowConfigImpl"});
  EXPECT_EQ(last().text(), "Drawer::draw from the sink");
}

TEST_F(BrisklogTest, TheHostsClockIsRecordedExactlyAndALineIsPrintable) {
  static double time;
  Korm::clockIs([] { return time; });
  for (const double now : {0.1, -3.5, 1e300, 1700000000.123456789, 1.0}) {
    time = now;
    plain();
    EXPECT_EQ(last().time, now);
  }
  flowPoint("a\nb\x1b");
  EXPECT_EQ(last().printedLine(),
            "1.000000 5 Ostra/OstraSm:123 OstraSm::handleFlowConfigImpl insert flow:a\\x0ab\\x1b");
}

TEST_F(BrisklogTest, LongTextIsCutWithAMarkAndTakesNobodysPlace) {
  const std::string longText = "0123456789" + std::string(300, 'x');
  plain(longText);
  EXPECT_EQ(last().arguments, Texts{longText.substr(0, 103) + "..."});
  plain(longText.substr(0, 103));
  EXPECT_EQ(last().arguments, Texts{longText.substr(0, 103)}) << "fits to the byte";
  countedPoint(1, longText, -1.5, longText, true, Bytes{longText.data(), 100});
  EXPECT_EQ(last().arguments, (Texts{"1", longText.substr(0, 8 * 8 - 1) + "...", "-1.5",
                                     longText.substr(0, 7) + "...", "true", "30313233343536..."}));

  collectText(7);
  plain(longText);
  EXPECT_EQ(texts_, Texts{"Drawer::draw " + longText}) << "the text trace is never cut";
}

TEST_F(BrisklogTest, FullDictionaryCostsTheDescriptionAndNotTheRecord) {
  useRing({.records = 64, .dictionaryBytes = 128});
  plain(1);
  flowPoint("unknown");
  const auto records = RingReader::attach(ring()).newest(64);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].text(), "Drawer::draw 1");
  EXPECT_FALSE(records[1].described);
  EXPECT_EQ(records[1].text(), "? unknown");
}

TEST_F(BrisklogTest, WrappingKeepsTheNewestAndAFollowerLearnsWhatItLost) {
  RingReader reader = RingReader::attach(ring());
  RingCursor cursor;
  EXPECT_TRUE(reader.newest(10).empty());
  for (int i = 0; i < 50; ++i) {
    plain(i);
  }
  EXPECT_EQ(reader.follow(cursor).size(), 50U);
  EXPECT_TRUE(reader.follow(cursor).empty());
  EXPECT_EQ(cursor.lost, 0U);
  for (int i = 50; i < 200; ++i) {
    plain(i);
  }
  const auto rest = reader.follow(cursor);
  ASSERT_EQ(rest.size(), 64U);
  EXPECT_EQ(rest.front().text(), "Drawer::draw 136");
  EXPECT_EQ(rest.back().text(), "Drawer::draw 199");
  EXPECT_EQ(cursor.lost, 136U - 50U);
  const auto newest = reader.newest(3);
  ASSERT_EQ(newest.size(), 3U);
  EXPECT_EQ(newest.front().text(), "Drawer::draw 197");
  cursor.next += 1'000;
  EXPECT_EQ(reader.follow(cursor).size(), 64U) << "a cursor beyond all records starts over";
}

// Any one bit of the head, of the counts in the header or of a record's sequence is wrong for a
// while.
TEST_F(BrisklogTest, AFollowerOfADamagedRingNeitherSpinsNorGoesBlind) {
  const std::string name = shmName();
  useRing({.shmName = name, .records = 64});
  Tampering segment{Korm::SegmentName{name}};
  RingReader reader = RingReader::attach(name);
  RingCursor cursor;
  int written = 0;
  constexpr std::size_t fifth = detail::headerWords + 5 * detail::recordWords;
  for (const std::size_t word :
       std::initializer_list<std::size_t>{detail::headWord, detail::recordCountWord,
                                          detail::instanceWord, detail::headerWords, fifth}) {
    for (unsigned bit = 0; bit < 64; ++bit) {
      const auto mask = static_cast<std::uint8_t>(1U << bit % 8);
      segment.flipByte(word * 8 + bit / 8, mask);
      const std::uint64_t lost = cursor.lost;
      EXPECT_LE(reader.follow(cursor).size(), 64U);
      EXPECT_LE(cursor.lost - lost, 128U) << "it counts records that there never were";
      EXPECT_LE(reader.newest(64).size(), 64U);
      segment.flipByte(word * 8 + bit / 8, mask);
      for (int i = 0; i < 70; ++i) {
        plain(++written);
      }
      const auto told = reader.follow(cursor);
      ASSERT_FALSE(told.empty()) << word << " bit " << bit;
      const std::string last = "Drawer::draw " + std::to_string(written);
      ASSERT_EQ(told.back().text(), last) << word << " bit " << bit;
      ASSERT_EQ(reader.newest(1).back().text(), last) << word << " bit " << bit;
    }
  }
}

// Writes records whose parts must agree with each other; `text` makes some short and some long.
std::string textFor(std::uint64_t i) { return std::to_string(i) + std::string(i % 90, '.'); }

void writeCounted(std::uint64_t from, std::uint64_t end) {
  for (std::uint64_t i = from; i < end; ++i) {
    countedPoint(i, textFor(i), ~i);
  }
}

void expectWhole(const DecodedRecord& record) {
  ASSERT_TRUE(record.described);
  ASSERT_EQ(record.arguments.size(), 3U) << record.printedLine();
  const std::uint64_t i = std::stoull(record.arguments[0]);
  const std::string& text = record.arguments[1];
  EXPECT_EQ(record.arguments[2], std::to_string(~i));
  EXPECT_EQ(record.function, "run");
  EXPECT_EQ(text, text.ends_with("...") && text.size() == 90 ? textFor(i).substr(0, 87) + "..."
                                                             : textFor(i));
}

TEST_F(BrisklogTest, ConcurrentWritersAndAReaderNeverShowATornRecord) {
  constexpr std::uint64_t perThread = 40'000;
  constexpr std::uint64_t threads = 3;
  RingReader reader = RingReader::attach(ring());
  RingCursor cursor;
  ASSERT_TRUE(reader.follow(cursor).empty());
  std::atomic<std::uint64_t> running = threads;
  std::vector<std::jthread> writers;
  for (std::uint64_t t = 0; t < threads; ++t) {
    writers.emplace_back([&, t] {
      writeCounted(t << 32, (t << 32) + perThread);
      --running;
    });
  }
  std::map<std::uint64_t, std::uint64_t> next;  // by thread
  std::uint64_t seen = 0;
  for (bool done = false; !done;) {
    done = running == 0;
    for (const DecodedRecord& record : reader.follow(cursor)) {
      ASSERT_NO_FATAL_FAILURE(expectWhole(record));
      const std::uint64_t i = std::stoull(record.arguments[0]);
      ASSERT_GE(i, next[i >> 32]) << "a thread's records keep their order";
      next[i >> 32] = i + 1;
      ++seen;
    }
    for (const DecodedRecord& record : reader.newest(64)) {
      ASSERT_NO_FATAL_FAILURE(expectWhole(record));
    }
  }
  EXPECT_GE(seen, 64U);
  EXPECT_GE(seen + cursor.lost, threads * perThread);
  EXPECT_EQ(reader.newest(64).size(), 64U);
}

// The clock is read in the middle of a record, which lets a test stop a writer there.
std::atomic<int> inClock = 0;
thread_local bool stopsInClock = false;

double stoppingClock() {
  if (stopsInClock) {
    inClock = 1;
    inClock.notify_all();
    inClock.wait(1);
  }
  return 1;
}

std::jthread suspendInARecord() {
  inClock = 0;
  std::jthread suspended([] {
    stopsInClock = true;
    plain("suspended");
  });
  inClock.wait(0);
  return suspended;
}

TEST_F(BrisklogTest, WriterSuspendedInARecordHoldsUpNobody) {
  Korm::clockIs(stoppingClock);
  RingReader reader = RingReader::attach(ring());
  RingCursor cursor;
  plain("before");
  std::jthread suspended = suspendInARecord();
  plain("after");
  EXPECT_EQ(reader.follow(cursor).size(), 1U) << "it may be complete in an instant";
  EXPECT_EQ(reader.newest(9).size(), 2U);
  writeCounted(0, 40);
  EXPECT_EQ(reader.follow(cursor).size(), 41U) << "half a ring is long enough to wait";
  EXPECT_EQ(cursor.lost, 1U);
  writeCounted(40, 300);
  EXPECT_EQ(reader.newest(64).size(), 63U) << "the others leave it its slot";
  cursor = {};
  EXPECT_EQ(reader.follow(cursor).size(), 63U);

  inClock = 2;
  inClock.notify_all();
  suspended.join();
  const auto all = reader.newest(64);
  ASSERT_EQ(all.size(), 64U);
  EXPECT_EQ(all.front().text(), "Drawer::draw suspended");
  for (std::size_t i = 1; i < all.size(); ++i) {
    expectWhole(all[i]);
  }
}

std::string attachError(const std::string& name) {
  return messageOf<RingError>([&name] { static_cast<void>(RingReader::attach(name)); });
}

TEST_F(BrisklogTest, AnOwnerKilledInARecordHoldsNothingBack) {
  const std::string name = shmName();
  ChildProcess owner([&] {
    useRing({.shmName = name, .records = 64});
    Korm::clockIs(stoppingClock);
    const std::jthread suspended = suspendInARecord();
    plain("after");
    ::pause();
  });
  std::optional<RingReader> reader;
  waitFor([&] {
    messageOf<RingError>([&] { reader.emplace(RingReader::attach(name)); });
    return reader && !reader->newest(1).empty();
  });
  RingCursor cursor;
  EXPECT_TRUE(reader->follow(cursor).empty()) << "the first may be complete in an instant";
  EXPECT_TRUE(owner.kill());
  EXPECT_EQ(reader->owner(), RingReader::Owner::gone_);
  EXPECT_EQ(reader->follow(cursor).size(), 1U);
  EXPECT_EQ(cursor.lost, 1U);
  useRing({.shmName = name});
}

TEST_F(BrisklogTest, NameGoesWithItsOwnerAndNotWithAForkedChild) {
  const std::string name = shmName();
  ChildProcess owner([&] {
    useRing({.shmName = name});
    EXPECT_TRUE(ChildProcess([] { std::exit(0); }).join());
    EXPECT_EQ(attachError(name), "");
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_TRUE(owner.join());
  EXPECT_NE(attachError(name), "");
}

TEST_F(BrisklogTest, WhatIsNotARingOfThisLayoutIsRefused) {
  const std::string name = shmName();
  EXPECT_THAT(attachError(name), HasSubstr("No such file"));
  const auto ringOfThatName = Ring::create({.shmName = name, .records = 64});
  Tampering segment{Korm::SegmentName{name}};
  const auto errorWith = [&](std::size_t word, std::uint64_t value) {
    const std::uint64_t old = segment.word(word);
    segment.wordIs(word, value);
    std::string error = attachError(name);
    segment.wordIs(word, old);
    return error;
  };
  EXPECT_THAT(errorWith(detail::magicWord, 0), HasSubstr("not ready"));
  EXPECT_THAT(errorWith(detail::magicWord, 42), HasSubstr("not a trace ring"));
  EXPECT_THAT(errorWith(detail::layoutWord, 42), HasSubstr("layout"));
  for (const std::uint64_t records : {0UL, 63UL, 1UL << 20, 1UL << 63}) {
    EXPECT_THAT(errorWith(detail::recordCountWord, records), HasSubstr("shorter")) << records;
  }
  EXPECT_EQ(attachError(name), "");
  std::filesystem::resize_file("/dev/shm" + name, 100);
  EXPECT_THAT(attachError(name), HasSubstr("too short"));
}

}  // namespace
