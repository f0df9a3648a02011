#include "cli/show/Check.h"

#include <ostream>
#include <system_error>
#include <vector>

#include "Ostra/OstraStatus.h"
#include "Ostra/OstraTypes.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/P4RuntimeRouting/Ecmp.h"
#include "platform/Vasta/Reader.h"
#include "sim/SharedRecords.h"
#include "sim/TablePaths.h"

namespace Cli {
namespace {

class Check {
 public:
  Check(const std::string& name, std::ostream& out) : name_{name}, out_{out} {}

  template <class R>
  void table(const std::string& path) {
    path_ = &path;
    try {
      Vasta::Reader<R> reader{KormVasta::segmentName(name_, path)};
      rows(reader);
    } catch (const Vasta::AttachError& error) {
      if (error.failure() == Vasta::AttachFailure::missing) {
        ++missing_;
      } else {
        fault(error.what());
      }
    } catch (const std::system_error& error) {
      fault(error.what());
    }
  }

  bool finish() {
    if (tables_ == 0) {
      out_ << "there are no tables under '" << name_ << "'\n";
    } else if (missing_ > 0) {
      out_ << missing_ << " of " << missing_ + tables_ << " tables are missing\n";
    }
    return tables_ > 0 && missing_ == 0 && whole_;
  }

 private:
  template <class R>
  void rows(Vasta::Reader<R>& reader) {
    ++tables_;
    const std::uint64_t before = reader.changeSequence();
    std::size_t count = 0;
    R row;
    for (Vasta::Hint hint;;) {
      try {
        if (!reader.next(hint, row)) {
          break;
        }
        ++count;
        if (R found; !reader.find(row.key(), found) && reader.changeSequence() == before) {
          fault("row " + std::to_string(hint.row - 1) + " is not found by its key");
        }
      } catch (const Vasta::Corruption& corruption) {
        fault(corruption.what());
      }
    }
    // A running writer may change both numbers meanwhile.
    if (count != reader.size() && reader.changeSequence() == before) {
      fault("it has " + std::to_string(count) + " intact rows, and its header says " +
            std::to_string(reader.size()));
    }
    out_ << *path_ << ": " << count << (count == 1 ? " row\n" : " rows\n");
  }

  void fault(const std::string& text) {
    whole_ = false;
    out_ << *path_ << ": " << text << '\n';
  }

  const std::string& name_;
  std::ostream& out_;
  const std::string* path_ = nullptr;
  std::size_t tables_ = 0;
  std::size_t missing_ = 0;
  bool whole_ = true;
};

}  // namespace

bool checkShared(const std::string& name, std::ostream& out) {
  Check check{name, out};
  check.table<P4RuntimeRouting::NexthopInfo>(Sim::memberTablePath());
  check.table<P4RuntimeRouting::EcmpMemberList>(Sim::groupTablePath());
  check.table<NexthopGroup::EncapEntry>(Sim::encapTablePath());
  check.table<Sim::PortRow>(Sim::portTablePath());
  check.table<Sim::BlobRow>(Sim::blobTablePath());
  for (std::uint8_t index = 0; index < Sim::flowTables; ++index) {
    check.table<Ostra::OstraConfigEntry>(Sim::flowTablePath(index));
    check.table<Ostra::OstraStatusEntry>(Sim::flowStatusTablePath(index));
  }
  return check.finish();
}

}  // namespace Cli
