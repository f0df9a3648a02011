#include "cli/show/Viewer.h"

#include <ostream>

#include "cli/output/TextTable.h"
#include "platform/Korm/Segment.h"
#include "sim/SharedMemory.h"
#include "sim/SharedNames.h"

namespace Cli {
namespace {

using Owner = Brisklog::RingReader::Owner;

std::optional<Brisklog::RingReader> attachRing(const std::string& name) {
  try {
    return Brisklog::RingReader::attach(Sim::traceSegment(name));
  } catch (const Brisklog::RingError&) {
    return std::nullopt;
  }
}

}  // namespace

Viewer::Viewer(std::string name, const std::vector<std::string_view>& topics)
    : name_{std::move(name)} {
  for (const std::string_view topic : topics) {
    if (topic == shownTrace) {
      trace_ = true;
    } else {
      tables_.push_back(makeShownTable(topic, name_));
    }
  }
}

Viewer::Shown Viewer::print(std::ostream& out) {
  const std::string segment = Sim::traceSegment(name_);
  const auto process = Sim::processWithTables(name_);
  if (Korm::Segment::open(Korm::SegmentName{"/" + segment}, Korm::Segment::Access::readOnly_, 0,
                          "'" + name_ + "'") != nullptr) {
    ring_ = Brisklog::RingReader::attach(segment);
  } else if (!process) {
    return Shown::nothing_;
  }
  // A process that died while it resumed has left the tables, and perhaps no ring.
  out << name_ << ": process "
      << (ring_ ? static_cast<std::uint64_t>(ring_->ownerProcess()) : *process)
      << (ring_ && ring_->owner() == Owner::alive_ ? "" : ", which is gone; this is what it left")
      << '\n';
  bool whole = true;
  for (const auto& table : tables_) {
    whole = table->print(out) && whole;
  }
  if (trace_ && ring_) {
    const auto records = ring_->newest(traceLines);
    out << shownTrace << ": " << records.size() << '\n';
    for (const auto& record : records) {
      out << "  " << printable(record.printedLine()) << '\n';
    }
  }
  return whole ? Shown::whole_ : Shown::damaged_;
}

void Viewer::follow(std::ostream& out) {
  if (!attach(out)) {
    return;
  }
  // Read before the last look at the ring, so that no record in between is missed.
  const Owner owner = ring_->owner();
  for (const auto& table : tables_) {
    table->follow(out);
  }
  printTrace(out);
  if (owner != Owner::alive_) {
    noteOwner(out);
  }
}

bool Viewer::attach(std::ostream& out) {
  if (ring_ && !ownerGone_) {
    return true;
  }
  auto next = attachRing(name_);
  // The memory that an ended process has left is shown once.
  if (!next || (ownerGone_ && next->owner() != Owner::alive_)) {
    if (!saidWaiting_) {
      out << "# waiting for '" << name_ << "'\n";
      saidWaiting_ = true;
    }
    return false;
  }
  detach();
  ring_ = std::move(next);
  out << "# attached to '" << name_ << "', process " << ring_->ownerProcess() << '\n';
  return true;
}

void Viewer::noteOwner(std::ostream& out) {
  out << "# process " << ring_->ownerProcess() << " is gone\n";
  ownerGone_ = true;
}

void Viewer::printTrace(std::ostream& out) {
  if (!trace_) {
    return;
  }
  for (const auto& record : ring_->follow(cursor_)) {
    out << shownTrace << ' ' << printable(record.printedLine()) << '\n';
  }
  if (cursor_.lost != lost_) {
    out << "# " << cursor_.lost - lost_
        << " trace records were overwritten before they were read\n";
    lost_ = cursor_.lost;
  }
}

void Viewer::detach() {
  for (const auto& table : tables_) {
    table->detach();
  }
  ring_.reset();
  cursor_ = {};
  lost_ = 0;
  ownerGone_ = false;
  saidWaiting_ = false;
}

}  // namespace Cli
