// Shows what another process, an ostra-sim with --shm, does: its tables and its trace ring.
//
// Thread and process rule: one thread of a process that only reads. The other process may start,
// stop or be killed at any moment; the viewer never waits for it other than by looking again.
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
  // The newest records that print() shows.
  static constexpr std::size_t traceLines = 50;

  // `topics` are kinds of tables (see ShownTable.h) and shownTrace.
  Viewer(std::string name, const std::vector<std::string_view>& topics);

  enum class Shown {
    nothing_,  // there is no such process, and none has left anything
    damaged_,  // with what is damaged said
    whole_,
  };

  // Prints everything once.
  // Throws: Brisklog::RingError when what is there cannot be read.
  Shown print(std::ostream& out);

  // Prints what has changed since the last call, and in lines of their own that the process came or
  // went. To be called again and again.
  void follow(std::ostream& out);

 private:
  // Whether there is a ring to read; says so when that has changed.
  bool attach(std::ostream& out);
  void noteOwner(std::ostream& out);
  void printTrace(std::ostream& out);
  void detach();

  const std::string name_;
  std::vector<std::unique_ptr<ShownTable>> tables_;
  bool trace_ = false;
  std::optional<Brisklog::RingReader> ring_;
  Brisklog::RingCursor cursor_;
  std::uint64_t lost_ = 0;  // of the records that have been spoken of
  bool ownerGone_ = false;  // and that has been said
  bool saidWaiting_ = false;
};

inline constexpr std::string_view shownTrace = "trace";

}  // namespace Cli
