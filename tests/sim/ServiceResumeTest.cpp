// What outlives a service in named shared memory: blobs beside the rows, and what is left damaged.
#include "platform/KormVasta/SharedMemory.h"
#include "platform/Vasta/Layout.h"
#include "sim/SharedMemory.h"
#include "sim/TablePaths.h"
#include "tests/Tampering.h"
#include "tests/platform/ChildProcess.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

using Sim::Leftover;
using Sim::SharedMemory;

const std::string name = uniqueName("ostra-resume-test");

Sim::Update insertOf(const std::string& priority) {
  return Sim::Update::flow(Sim::Op::insert_, 0, rowOf("priority=" + priority + " -> drop"));
}

// Flips a bit of every `step`th byte in the rows of a table that nobody has open.
void damageRows(const std::string& path, std::size_t from, std::size_t step) {
  Tampering rows{Vasta::SegmentNames{KormVasta::segmentName(name, path)}.rows()};
  for (std::size_t at = from; at < 4096; at += step) {
    rows.flipByte(at, 1);
  }
}

TEST(ServiceResume, ValuesOfAnyLengthAreReplacedAsAWhole) {
  SharedMemory shared{name, Leftover::discard_};
  std::mt19937 random{1};
  std::map<std::pair<std::uint32_t, std::uint64_t>, std::string> model;
  for (int round = 0; round < 12; ++round) {
    Sim::Service service{&shared};
    Sim::Blobs& blobs = service.blobs();
    for (int step = 0; step < 150; ++step) {
      const std::pair<std::uint32_t, std::uint64_t> key{random() % 2, random() % 8};
      if (random() % 3 == 0) {
        EXPECT_EQ(blobs.del(key.first, key.second), model.erase(key) == 1);
      } else {
        // About the bounds of one part and of two.
        const std::size_t size = random() % 2 == 0 ? random() % 3 : 213 + random() % 222;
        model[key] = std::string(size, static_cast<char>('a' + random() % 26));
        blobs.is(key.first, key.second, model[key]);
      }
      for (std::uint32_t kind = 0; kind < 2; ++kind) {
        std::vector<std::uint64_t> ids;
        for (std::uint64_t id = 0; id < 8; ++id) {
          const auto expected = model.find({kind, id});
          const auto value = blobs.find(kind, id);
          ASSERT_EQ(value.has_value(), expected != model.end());
          if (value) {
            ASSERT_EQ(*value, expected->second);
            ids.push_back(id);
          }
        }
        ASSERT_EQ(blobs.ids(kind), ids);
      }
    }
    service.verify();
    EXPECT_THAT(blobs.recover(), IsEmpty());
  }
}

TEST(ServiceResume, AProcessThatDiesWritingAValueLeavesTheOldOneOrTheNewOne) {
  const auto valueOf = [](std::uint64_t number) {
    return std::string(number * 37 % 900, static_cast<char>('a' + number % 26));
  };
  std::mt19937 random{2};
  std::uint64_t written = 0;
  for (int round = 0; round < 20; ++round) {
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    ChildProcess writer{[&] {
      SharedMemory shared{name, round == 0 ? Leftover::discard_ : Leftover::resume_};
      Sim::Service service{&shared};
      for (std::uint64_t number = written + 1;; ++number) {
        service.blobs().is(1, 7, valueOf(number));
        if (::write(channel[1], &number, sizeof number) != sizeof number) {
          throw std::runtime_error{"nobody reads"};
        }
      }
    }};
    ::close(channel[1]);
    ASSERT_EQ(::read(channel[0], &written, sizeof written), sizeof written);
    std::this_thread::sleep_for(std::chrono::microseconds{random() % 3000});
    EXPECT_TRUE(writer.kill());
    while (::read(channel[0], &written, sizeof written) == sizeof written) {
    }
    ::close(channel[0]);

    SharedMemory shared{name, Leftover::resume_};
    ASSERT_TRUE(shared.resuming());
    Sim::Service service{&shared};
    const auto value = service.blobs().find(1, 7);
    ASSERT_TRUE(value);
    EXPECT_TRUE(*value == valueOf(written) || *value == valueOf(written + 1)) << written;
    EXPECT_EQ(service.blobs().ids(1).size(), 1U);
    EXPECT_THAT(service.takeFaults(), IsEmpty());
    service.verify();
    shared.keep();
  }
  const SharedMemory last{name, Leftover::discard_};
}

TEST(ServiceResume, DamagedRowsAreReportedAndDroppedAndAForeignTableStaysAsItIs) {
  {
    SharedMemory shared{name, Leftover::discard_};
    Sim::Service service{&shared};
    for (const char* const priority : {"1", "2", "3", "4"}) {
      service.apply(insertOf(priority));
    }
    service.portIs(1, Interface::IntfId{"Ethernet1"});
    service.blobs().is(1, 1, "value");
    shared.keep();
  }
  // A byte of the first row's record.
  const Vasta::RowGeometry rows{sizeof(Ostra::OstraConfigEntry), 0, 0};
  damageRows(Sim::flowTablePath(0), rows.rowOffset(0) * Vasta::wordSize + 40, 100000);
  damageRows(Sim::portTablePath(), 0, 1);  // all of it
  damageRows(Sim::blobTablePath(), 0, 1);
  {
    SharedMemory shared{name, Leftover::resume_};
    Sim::Service service{&shared};
    EXPECT_THAT(service.takeFaults(), testing::SizeIs(testing::Ge(3U)));
    EXPECT_EQ(service.start().failure, std::nullopt);
    EXPECT_EQ(service.flows().size(), 3U);
    EXPECT_FALSE(service.portDel(1));
    EXPECT_EQ(service.blobs().find(1, 1), std::nullopt);
    EXPECT_EQ(service.apply(insertOf("9")).front().handle, 5U);
    service.verify();
    shared.keep();
  }
  // Whatever stands under the name of a table and is none keeps the service from starting, and
  // stays.
  const Vasta::SegmentNames names{KormVasta::segmentName(name, Sim::memberTablePath())};
  Tampering{names.header()}.wordIs(0, 42);
  {
    SharedMemory shared{name, Leftover::resume_};
    EXPECT_ANY_THROW(Sim::Service{&shared});
  }
  EXPECT_EQ(Tampering{names.header()}.word(0), 42U);
  Korm::unlinkSegment(names.header());
  SharedMemory shared{name, Leftover::resume_};
  Sim::Service service{&shared};
  service.start();
  EXPECT_EQ(service.flows().size(), 4U);
}

}  // namespace
