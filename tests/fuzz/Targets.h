// The functions that the fuzzer calls with random bytes. A target that finds a fault ends the
// process.
//
// Threads: one thread.
#pragma once

#include <span>

#include "tests/Testing.h"

namespace Fuzz {

using Bytes = std::span<const std::uint8_t>;

void key(Bytes bytes);       // the text form of a flow key, both ways
void status(Bytes bytes);    // the text form of a status entry
void name(Bytes bytes);      // flow names, against sscanf
void address(Bytes bytes);   // addresses, against inet_pton
void language(Bytes bytes);  // commands, on a whole switch
void table(Bytes bytes);     // a shared table that is damaged
void ring(Bytes bytes);      // a trace ring that is damaged
#ifdef OSTRA_P4RT
void p4rt(Bytes bytes);  // messages of P4Runtime controllers, on a whole switch
#endif

struct Target {
  std::string_view name;
  void (*run)(Bytes bytes);
};
inline constexpr Target targets[] = {
    {"key", key},           {"status", status}, {"name", name}, {"address", address},
    {"language", language}, {"table", table},   {"ring", ring},
#ifdef OSTRA_P4RT
    {"p4rt", p4rt},
#endif
};

inline std::string textOf(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

// Values from the front of some bytes, zero behind their end.
class Source {
 public:
  explicit Source(Bytes bytes) : rest_{bytes} {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }
  // At most so many bytes.
  Bytes take(std::size_t most) {
    const Bytes taken = rest_.first(std::min(most, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  template <class T = std::uint8_t>
  T next() {
    T value{};
    const Bytes taken = take(sizeof value);
    std::copy(taken.begin(), taken.end(), reinterpret_cast<std::uint8_t*>(&value));
    return value;
  }

 private:
  Bytes rest_;
};

}  // namespace Fuzz
