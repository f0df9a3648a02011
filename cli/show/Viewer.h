// Shows the tables and the trace ring of another process, an ostra-sim with --shm.
//
// Threads: one thread of a process that only reads. The other process may start, stop or be killed
// at any moment. The viewer never blocks on it.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/show/ShownTable.h"
#include "platform/Brisklog/RingReader.h"

namespace Cli {

class Viewer {
 public:
  // How many of the newest records print() shows.
  static constexpr std::size_t traceLines = 50;

  // `topics` are kinds of tables (see ShownTable.h) and shownTrace.
  Viewer(std::string name, const std::vector<std::string_view>& topics);

  enum class Shown {
    nothing_,  // there is no such process, and no memory of an earlier one
    damaged_,  // the damage has been printed
    whole_,
  };

  // Prints everything once.
  // Throws: Brisklog::RingError when what is there cannot be read.
  Shown print(std::ostream& out);

  // Prints what has changed since the last call. Separate lines say that the process has started or
  // ended. Meant to be called repeatedly.
  void follow(std::ostream& out);

 private:
  // Attaches to the ring; false when there is none. Prints a line when that has changed.
  bool attach(std::ostream& out);
  void noteOwner(std::ostream& out);
  void printTrace(std::ostream& out);
  void detach();

  const std::string name_;
  std::vector<std::unique_ptr<ShownTable>> tables_;
  bool trace_ = false;
  std::optional<Brisklog::RingReader> ring_;
  Brisklog::RingCursor cursor_;
  std::uint64_t lost_ = 0;  // the lost records that have been reported
  bool ownerGone_ = false;  // the end of the process has been reported
  bool saidWaiting_ = false;
};

inline constexpr std::string_view shownTrace = "trace";

}  // namespace Cli
