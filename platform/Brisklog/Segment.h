// The memory of a ring, mapped by its owner or by a reader. For Brisklog's own use.
//
// The owner of a named segment holds a lock on it that the system releases when the process dies and that
// anyone may ask about. A child forked by the owner holds it too.
// Invariant: a segment never changes its size, and a name changes hands only by way of a fresh segment, so
// that a mapping stays good for whoever has it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/Brisklog/RingLayout.h"

namespace Brisklog::detail {

class Segment {
 public:
  // All throw RingError. New memory is zero and allocated in full.
  [[nodiscard]] static std::unique_ptr<Segment> createAnonymous(std::size_t bytes);
  [[nodiscard]] static std::unique_ptr<Segment> createNamed(const std::string& name,
                                                            std::size_t bytes);
  [[nodiscard]] static std::unique_ptr<Segment> openReadOnly(const std::string& name);

  [[nodiscard]] static bool exists(const std::string& name);

  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  [[nodiscard]] Word* words() const noexcept { return static_cast<Word*>(address_); }
  [[nodiscard]] std::size_t bytes() const noexcept { return bytes_; }

  // For named segments:
  [[nodiscard]] bool ownerLives() const noexcept;
  [[nodiscard]] bool hasName() const noexcept;  // false once its name is gone or another's
  void removeName(const std::string& name) const noexcept;

 private:
  Segment(void* address, std::size_t bytes, int file) noexcept
      : address_(address), bytes_(bytes), file_(file) {}

  void* const address_;
  const std::size_t bytes_;
  const int file_;  // -1: anonymous
};

}  // namespace Brisklog::detail
