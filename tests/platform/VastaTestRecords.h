// Records and helpers shared by the tests of the shared tables.
#pragma once

#include "platform/Korm/Hash.h"
#include "platform/Vasta/Reader.h"
#include "platform/Vasta/Table.h"
#include "tests/Tampering.h"

namespace VastaTest {

using namespace TestSupport;
using Vasta::AttachError;
using Vasta::AttachFailure;
using Vasta::Corruption;
using Vasta::Hint;
using Vasta::Reader;
using Vasta::Table;

// A record that says of itself whether it is whole: all of its payload follows from key and
// version.
struct Route {
  using Key = std::uint64_t;
  static constexpr std::string_view vastaName = "Route";

  Key prefix = 0;
  std::uint64_t version = 0;
  std::array<std::uint64_t, 24> payload{};

  static Route of(Key prefix, std::uint64_t version) {
    Route route{.prefix = prefix, .version = version};
    for (std::size_t i = 0; i < route.payload.size(); ++i) {
      route.payload[i] = Korm::hashMix(prefix * 1000003 + version * 31 + i);
    }
    return route;
  }

  [[nodiscard]] const Key& key() const { return prefix; }
  [[nodiscard]] bool isWhole() const { return *this == of(prefix, version); }
  bool operator==(const Route&) const = default;
};

// A key in the middle of the record, and sizes that are no multiple of a word.
struct LabelKey {
  std::array<std::uint8_t, 7> label{};
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const {
    return static_cast<std::uint32_t>(Korm::hashBytes(label.data(), label.size(), seed));
  }
  auto operator<=>(const LabelKey&) const = default;
};
struct Label {
  using Key = LabelKey;

  std::array<std::uint8_t, 3> before{};
  LabelKey name;
  std::array<std::uint8_t, 9> after{};

  [[nodiscard]] const Key& key() const { return name; }
  bool operator==(const Label&) const = default;
};

// All keys in one search chain.
struct Crowded {
  struct Key {
    std::uint64_t value = 0;
    [[nodiscard]] std::uint32_t hash(std::uint32_t) const {
      return static_cast<std::uint32_t>(value % 3);
    }
  };
  Key name;
  std::uint64_t content = 0;
  [[nodiscard]] const Key& key() const { return name; }
};

// A name that no other run of the tests uses; its table goes at the end.
class TableName {
 public:
  TableName() : name_{uniqueName("test/") + "." + std::to_string(++counter_)} {}
  ~TableName() {
    const Vasta::SegmentNames names{name_};
    if (!Vasta::removeTable(names)) {  // its header is damaged
      Korm::unlinkSegment(names.index(1));
      Korm::unlinkSegment(names.rows());
      Korm::unlinkSegment(names.header());
    }
  }
  TableName(const TableName&) = delete;
  TableName& operator=(const TableName&) = delete;
  [[nodiscard]] const std::string& operator*() const { return name_; }
  [[nodiscard]] Vasta::TableOptions options(bool unlinkOnClose = false) const {
    return {.name = "routes", .shmName = name_, .unlinkOnClose = unlinkOnClose};
  }

 private:
  static inline int counter_ = 0;
  const std::string name_;
};

// What verify() finds.
template <class R>
std::string violation(const Table<R>& table) {
  return table.verify().value_or("none");
}

// Why a table cannot be opened, of which the error shows the name.
template <class Opening>
AttachFailure failureOf(const std::string& shown, Opening open) {
  try {
    open();
  } catch (const AttachError& error) {
    EXPECT_NE(std::string{error.what()}.find(shown), std::string::npos);
    return error.failure();
  }
  ADD_FAILURE() << "attached";
  return {};
}

}  // namespace VastaTest
