// Shared memory that somebody has damaged, or written from scratch.
#include "platform/Brisklog/Ring.h"
#include "platform/Brisklog/RingReader.h"
#include "platform/Brisklog/TracePoint.h"
#include "platform/Korm/Exceptions.h"
#include "platform/Korm/Hash.h"
#include "platform/Vasta/Reader.h"
#include "platform/Vasta/SegmentNames.h"
#include "platform/Vasta/Table.h"
#include "tests/fuzz/Targets.h"

namespace Fuzz {
namespace {

// A row whose payload is computed from its key.
struct Row {
  using Key = std::uint64_t;
  static constexpr std::string_view vastaName = "Fuzz::Row";

  static Row of(Key number) { return {number, Korm::hashMix(number), Korm::hashMix(number + 1)}; }
  [[nodiscard]] const Key& key() const { return number; }
  [[nodiscard]] bool isWhole() const { return *this == of(number); }
  friend bool operator==(const Row&, const Row&) = default;

  Key number = 0;
  std::uint64_t first = 0;
  std::uint64_t second = 0;
};
constexpr std::uint64_t rows = 40;

void mustBeWhole(const Row& row) {
  Korm::assertTrue(row.isWhole(), "a record is whole or refused");
}

// Changes a segment, if there is one. If the first byte is even, the others are written over it.
// Otherwise each twelve of the others give a place and a word that is written, added or xored
// there, or a new size.
void damage(const std::string& segment, Bytes bytes) {
  const std::string file = "/dev/shm" + segment;
  std::ifstream in{file, std::ios::binary};
  if (!in) {
    return;
  }
  std::string content{std::istreambuf_iterator<char>{in}, {}};
  const std::size_t size = content.size();
  std::size_t newSize = size;
  Source source{bytes};
  if (source.next() % 2 == 0) {
    const Bytes whole = source.take(size);
    std::copy(whole.begin(), whole.end(), content.begin());
    source = Source{{}};
  }
  while (!source.empty()) {
    const unsigned how = source.next();
    const std::size_t place = source.next<std::uint16_t>() * sizeof(std::uint64_t);
    source.take(1);
    const auto word = source.next<std::uint64_t>();
    char* const at = content.data() + place % (size - sizeof word + 1);
    std::uint64_t old = 0;
    std::memcpy(&old, at, sizeof old);
    const std::uint64_t next = how % 3 == 0 ? word : how % 3 == 1 ? old + word : old ^ word;
    if (how % 8 == 7) {
      newSize = word % (2 * size);
    } else {
      std::memcpy(at, &next, sizeof next);
    }
  }
  content.resize(newSize);
  std::ofstream{file, std::ios::binary} << content;
}

// Calls step() until it returns false. Corruption is skipped.
template <class Step>
void passingCorruption(Step step) {
  for (unsigned tries = 0; tries < 10'000; ++tries) {
    try {
      if (!step()) {
        return;
      }
    } catch (const Vasta::Corruption&) {
    }
  }
  throw std::runtime_error{"a walk that does not end"};
}

void readTable(const std::string& shmName) {
  Vasta::Reader<Row> reader{shmName};
  Row row;
  Vasta::Hint hint;
  passingCorruption([&] {
    const bool more = reader.next(hint, row);
    if (more) {
      mustBeWhole(row);
    }
    return more;
  });
  std::uint64_t number = 0;
  passingCorruption([&] {
    if (const auto found = reader.find(number++ % rows)) {
      mustBeWhole(*found);
    }
    return number < rows;
  });
  Vasta::FollowCursor cursor;
  passingCorruption([&] {
    reader.follow(cursor, [](const Vasta::RowChange&, const Row& told) { mustBeWhole(told); });
    return false;
  });
}

void takeTableOver(const Vasta::TableOptions& options) {
  Vasta::Table<Row> writer{options};
  for (std::uint64_t number = 0; number < 2 * rows; number += 3) {
    writer.is(Row::of(number));
    writer.del(number + 1, nullptr);
  }
  writer.delAll();
  Korm::assertTrue(writer.size() == 0, "a table that was taken over can be emptied");
}

}  // namespace

// The first byte chooses the segment, the second whether a reader, the next writer or both attach.
void table(Bytes bytes) {
  if (bytes.size() < 2) {
    return;
  }
  const Vasta::TableOptions options{.name = "rows", .shmName = uniqueName("fuzz-table")};
  {
    Vasta::Table<Row> writer{options};
    for (std::uint64_t number = 0; number < rows; ++number) {
      writer.is(Row::of(number));
      if (number % 5 == 0) {
        writer.del(number / 2, nullptr);
      }
    }
  }
  const Vasta::SegmentNames names{options.shmName};
  const unsigned segment = bytes[0] % 3;
  // There may be no index of the first generation any more.
  const auto damaged = segment == 0 ? names.header() : segment == 1 ? names.rows() : names.index(1);
  damage(damaged.text(), bytes.subspan(2));
  const auto attempt = [](auto step) {
    try {
      step();
    } catch (const Vasta::AttachError&) {
    } catch (const Vasta::Corruption&) {
    } catch (const std::system_error&) {
    }
  };
  if (bytes[1] % 3 != 0) {
    attempt([&] { readTable(options.shmName); });
  }
  if (bytes[1] % 3 != 1) {
    attempt([&] { takeTableOver(options); });
  }
  Vasta::removeTable(options.shmName);
  for (const auto& name : {names.header(), names.rows(), names.index(1), names.index(2)}) {
    Korm::unlinkSegment(name);
  }
}

void ring(Bytes bytes) {
  static constexpr Brisklog::TraceHandle handle{"Fuzz"};
  static constinit Brisklog::TracePoint point{handle, 5, "Fuzz::", "ring", " number %s of %s"};
  const std::string name = uniqueName("fuzz-ring");
  const std::string damaged = name + "-damaged";
  (void)Brisklog::ringIs(Brisklog::Ring::create({.shmName = name, .records = 64}));
  for (unsigned number = 0; number < 80; ++number) {
    point(number, std::string_view{"a text that is longer than one word of a record"});
  }
  std::filesystem::copy_file("/dev/shm/" + name, "/dev/shm/" + damaged,
                             std::filesystem::copy_options::overwrite_existing);
  (void)Brisklog::ringIs(nullptr);
  try {
    damage("/" + damaged, bytes);
    Brisklog::RingReader reader = Brisklog::RingReader::attach(damaged);
    for (const auto& record : reader.newest(100)) {
      (void)record.printedLine();
    }
    Brisklog::RingCursor cursor;
    for (int round = 0; round < 3; ++round) {
      (void)reader.follow(cursor);
    }
    (void)reader.owner();
  } catch (const Brisklog::RingError&) {
  }
  std::filesystem::remove("/dev/shm/" + damaged);
}

}  // namespace Fuzz
