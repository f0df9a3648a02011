#include "cli/show/ShownTable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <system_error>
#include <utility>
#include <vector>

#include "Ostra/OstraStatus.h"
#include "Ostra/OstraTypes.h"
#include "cli/output/TextTable.h"
#include "cli/output/TextValues.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/P4RuntimeRouting/Ecmp.h"
#include "platform/Vasta/Reader.h"
#include "sim/TablePaths.h"

namespace Cli {
namespace {

using Ostra::OstraConfigEntry;
using Ostra::OstraStatusEntry;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::NexthopInfo;

using Cells = std::vector<std::string>;

// How a record is shown: titles (see TextTable), cells, and the number by which rows are sorted.
template <class R>
struct Columns;

std::string macText(const P4RuntimeRouting::LinkLayerWords& words) {
  const Korm::EthAddr address = P4RuntimeRouting::toEthAddr(words);
  return address.isZero() ? "-" : address.text();
}

std::string listText(std::span<const std::uint32_t> numbers) {
  std::string text;
  for (const std::uint32_t number : numbers) {
    text.append(text.empty() ? "" : ",").append(std::to_string(number));
  }
  return text.empty() ? "-" : text;
}

template <>
struct Columns<OstraConfigEntry> {
  static constexpr std::array<std::string_view, 4> titles{">entry", ">priority", "match",
                                                          "actions"};
  static std::uint64_t number(const OstraConfigEntry& row) { return row.entryHandle; }
  static Cells cells(const OstraConfigEntry& row) {
    return {std::to_string(row.entryHandle), std::to_string(row.flowKey.priority()),
            keyText(row.flowKey), entryActionsText(row)};
  }
};

template <>
struct Columns<NexthopInfo> {
  static constexpr std::array<std::string_view, 6> titles{">id",    ">entry",  ">port",
                                                          ">encap", "dst-mac", "src-mac"};
  static std::uint64_t number(const NexthopInfo& row) { return row.memberId; }
  static Cells cells(const NexthopInfo& row) {
    return {std::to_string(row.memberId), std::to_string(row.entryHandle),
            std::to_string(row.p4PortId), std::to_string(row.encapId),
            macText(row.dstMac),          macText(row.srcMac)};
  }
};

template <>
struct Columns<EcmpMemberList> {
  static constexpr std::array<std::string_view, 4> titles{">id", ">entry", "members", "weights"};
  static std::uint64_t number(const EcmpMemberList& row) { return row.groupId; }
  static Cells cells(const EcmpMemberList& row) {
    return {std::to_string(row.groupId), std::to_string(row.entryHandle), listText(row.memberIds()),
            listText(row.weights())};
  }
};

template <>
struct Columns<OstraStatusEntry> {
  static constexpr std::array<std::string_view, 3> titles{">entry", "result", "match"};
  static std::uint64_t number(const OstraStatusEntry& row) { return row.entryHandle; }
  static Cells cells(const OstraStatusEntry& row) {
    const bool success = row.errorCode == P4Runtime::ErrorCode::success_;
    const std::string result = success ? "done" : errorText(row.errorCode);
    return {std::to_string(row.entryHandle), row.deleted ? "deleted" : result, keyText(row.key())};
  }
};

template <class R>
class ShownTableOf final : public ShownTable {
 public:
  // Rows of several segments are told apart by a column `table` with the number of the segment.
  ShownTableOf(std::string_view kind, std::vector<std::string> segments)
      : kind_{kind}, numbered_{segments.size() > 1} {
    if (numbered_) {
      titles_.emplace_back(">table");
    }
    titles_.insert(titles_.end(), Columns<R>::titles.begin(), Columns<R>::titles.end());
    for (std::string& segment : segments) {
      sources_.push_back({std::move(segment), std::nullopt, {}});
    }
  }

  bool print(std::ostream& out) override {
    TextTable table{titles_};
    std::size_t count = 0;
    std::vector<std::string> faults;
    for (std::size_t at = 0; at < sources_.size(); ++at) {
      std::vector<R> rows = readAll(sources_[at], faults);
      std::sort(rows.begin(), rows.end(), [](const R& a, const R& b) {
        return Columns<R>::number(a) < Columns<R>::number(b);
      });
      for (const R& row : rows) {
        table.rowIs(cells(at, row));
      }
      count += rows.size();
    }
    out << kind_ << ": " << count << '\n';
    if (!table.empty()) {
      table.print(out);
    }
    for (const std::string& fault : faults) {
      out << "  " << fault << '\n';
    }
    return faults.empty();
  }

  void follow(std::ostream& out) override {
    for (std::size_t at = 0; at < sources_.size(); ++at) {
      Source& source = sources_[at];
      if (!attach(source)) {
        continue;
      }
      try {
        source.reader->follow(source.cursor, [&](const Vasta::RowChange& change, const R& row) {
          printChange(out, change.live, cells(at, row));
        });
      } catch (const Vasta::Corruption& corruption) {
        out << kind_ << " ! " << corruption.what() << '\n';
      } catch (const Vasta::AttachError&) {
        source.reader.reset();
      }
    }
  }

  void detach() override {
    for (Source& source : sources_) {
      source.reader.reset();
    }
  }

 private:
  struct Source {
    std::string segment;
    std::optional<Vasta::Reader<R>> reader;
    Vasta::FollowCursor cursor;
  };

  // Attaches to the table; false when there is none. A table that was removed is replaced by its
  // successor.
  static bool attach(Source& source) {
    if (source.reader && !source.reader->isRemoved()) {
      return true;
    }
    source.reader.reset();
    source.cursor = {};
    try {
      source.reader.emplace(source.segment);
    } catch (const Vasta::AttachError& error) {
      // A table that is missing or not ready may appear later.
      if (error.failure() != Vasta::AttachFailure::missing &&
          error.failure() != Vasta::AttachFailure::notReady) {
        throw;
      }
    }
    return source.reader.has_value();
  }

  static std::vector<R> readAll(Source& source, std::vector<std::string>& faults) {
    std::vector<R> rows;
    try {
      // There is none if its writer has not created it yet, or is about to end.
      if (attach(source)) {
        readRows(*source.reader, rows, faults);
      }
    } catch (const Vasta::AttachError& error) {
      faults.emplace_back(error.what());
    } catch (const std::system_error& error) {
      faults.emplace_back(error.what());
    }
    return rows;
  }

  static void readRows(Vasta::Reader<R>& reader, std::vector<R>& rows,
                       std::vector<std::string>& faults) {
    const std::uint64_t before = reader.changeSequence();
    const std::size_t damaged = faults.size();
    Vasta::Hint hint;
    R row;
    for (bool more = true; more;) {
      try {
        more = reader.next(hint, row);
        if (more) {
          rows.push_back(row);
        }
      } catch (const Vasta::Corruption& corruption) {
        faults.emplace_back(corruption.what());
      }
    }
    // A running writer may change both numbers meanwhile.
    const std::size_t count = rows.size() + faults.size() - damaged;
    if (reader.changeSequence() == before && count != reader.size()) {
      faults.push_back("there are " + std::to_string(count) +
                       " rows, and the header of the table says " + std::to_string(reader.size()));
    }
  }

  [[nodiscard]] Cells cells(std::size_t source, const R& row) const {
    Cells cells = Columns<R>::cells(row);
    if (numbered_) {
      cells.insert(cells.begin(), std::to_string(source));
    }
    return cells;
  }

  void printChange(std::ostream& out, bool live, const Cells& cells) const {
    out << kind_ << (live ? " +" : " -");
    for (std::size_t at = 0; at < cells.size(); ++at) {
      std::string_view title = titles_[at];
      title.remove_prefix(title.starts_with('>') ? 1 : 0);
      out << (at == 0 ? " " : ", ") << title << ' ' << printable(cells[at]);
    }
    out << '\n';
  }

  const std::string_view kind_;
  const bool numbered_;
  std::vector<std::string_view> titles_;
  std::vector<Source> sources_;
};

template <class PathOf>
std::vector<std::string> flowSegments(const std::string& name, PathOf pathOf) {
  std::vector<std::string> segments;
  for (std::uint8_t index = 0; index < Sim::flowTables; ++index) {
    segments.push_back(KormVasta::segmentName(name, pathOf(index)));
  }
  return segments;
}

}  // namespace

std::unique_ptr<ShownTable> makeShownTable(std::string_view kind, const std::string& name) {
  const auto segment = [&name](const std::string& path) {
    return std::vector{KormVasta::segmentName(name, path)};
  };
  if (kind == shownFlows) {
    return std::make_unique<ShownTableOf<OstraConfigEntry>>(shownFlows,
                                                            flowSegments(name, Sim::flowTablePath));
  }
  if (kind == shownMembers) {
    return std::make_unique<ShownTableOf<NexthopInfo>>(shownMembers,
                                                       segment(Sim::memberTablePath()));
  }
  if (kind == shownGroups) {
    return std::make_unique<ShownTableOf<EcmpMemberList>>(shownGroups,
                                                          segment(Sim::groupTablePath()));
  }
  if (kind == shownStatus) {
    return std::make_unique<ShownTableOf<OstraStatusEntry>>(
        shownStatus, flowSegments(name, Sim::flowStatusTablePath));
  }
  return nullptr;
}

}  // namespace Cli
