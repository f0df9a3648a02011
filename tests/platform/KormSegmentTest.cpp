// Named shared memory: who may use it, and what stands in the way of a name.

#include "platform/Brisklog/Ring.h"
#include "platform/Korm/Segment.h"
#include "tests/platform/VastaTestRecords.h"

namespace Korm {
namespace {

class SegmentTest : public testing::Test {
 protected:
  ~SegmentTest() override {
    segmentRightsIs({});
    ::shm_unlink(name_.text());
  }
  [[nodiscard]] std::string path() const { return std::string{"/dev/shm"} + name_.text(); }
  [[nodiscard]] mode_t mode() const {
    struct stat status {};
    EXPECT_EQ(::stat(path().c_str(), &status), 0);
    return status.st_mode & 0777U;
  }
  [[nodiscard]] int openError() const {
    try {
      return Segment::open(name_, Segment::Access::readOnly_, 0, "test") == nullptr ? ENOENT : 0;
    } catch (const std::system_error& error) {
      return error.code().value();
    }
  }

  const SegmentName name_{uniqueName("/segment-test")};
};

TEST_F(SegmentTest, IsItsUsersAloneUnlessAGroupIsNamed) {
  const mode_t before = ::umask(0);
  { const auto segment = Segment::create(name_, 0, "test"); }
  EXPECT_EQ(mode(), 0600U);
  unlinkSegment(name_);
  ::umask(077);
  segmentRightsIs({.group = ::getegid()});
  { const auto segment = Segment::create(name_, 0, "test"); }
  EXPECT_EQ(mode(), 0640U);
  ::umask(before);
}

TEST_F(SegmentTest, IsRefusedWhenItIsAnotherUsersOrNoMemoryAtAll) {
  EXPECT_EQ(openError(), ENOENT);
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  EXPECT_EQ(openError(), EINVAL) << "and does not wait for a writer";
  unlinkSegment(name_);
  if (::geteuid() == 0) {
    { const auto segment = Segment::create(name_, 0, "test"); }
    ASSERT_EQ(::chown(path().c_str(), 12345, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(openError(), EPERM);
    segmentRightsIs({.group = {}, .trustOtherUsers = true});
    EXPECT_EQ(openError(), 0);
  }
}

TEST_F(SegmentTest, KnowsWhetherItStillHasItsName) {
  const auto segment = Segment::create(name_, 0, "test");
  EXPECT_TRUE(segment->isNamed());
  unlinkSegment(name_);
  EXPECT_FALSE(segment->isNamed());
}

TEST_F(SegmentTest, WhatIsNeitherATableNorARingIsLeftAlone) {
  const auto write = [](const char* name) {
    std::ofstream{std::string{"/dev/shm"} + name} << std::string(8192, 'x');
  };
  write(name_.text());
  EXPECT_THROW(static_cast<void>(Brisklog::Ring::create({.shmName = name_.text()})),
               Brisklog::RingError);
  EXPECT_EQ(openError(), 0);
  const VastaTest::TableName table;
  const Vasta::SegmentNames names{*table};
  write(names.header().text());
  EXPECT_FALSE(Vasta::removeTable(*table));
  EXPECT_THROW((Vasta::Table<VastaTest::Route>{table.options()}), Vasta::AttachError);
  EXPECT_NE(Segment::open(names.header(), Segment::Access::readOnly_, 0, "test"), nullptr);
  unlinkSegment(names.header());
}

TEST(TableNames, DifferentNamesAreDifferentTables) {
  using RouteTable = Vasta::Table<VastaTest::Route>;
  using RouteReader = Vasta::Reader<VastaTest::Route>;
  const VastaTest::TableName name;
  RouteTable slash{{.name = "a", .shmName = *name + "/b", .unlinkOnClose = true}};
  RouteTable escape{{.name = "b", .shmName = *name + "%2fb", .unlinkOnClose = true}};
  RouteTable suffix{{.name = "c", .shmName = *name + "#rows", .unlinkOnClose = true}};
  slash.is(VastaTest::Route::of(1, 1));
  EXPECT_EQ(RouteReader{*name + "/b"}.size(), 1U);
  EXPECT_EQ(RouteReader{*name + "%2fb"}.size(), 0U);
  EXPECT_THROW((RouteTable{{.name = "d", .shmName = std::string(300, 'x')}}),
               std::invalid_argument);
}

}  // namespace
}  // namespace Korm
