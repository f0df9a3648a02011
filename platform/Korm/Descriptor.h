// A file descriptor that is closed when its owner is destroyed.
//
// Threads: one thread at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace Korm {

class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : number_{number} {}
  Descriptor(Descriptor&& other) noexcept : number_{std::exchange(other.number_, -1)} {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (number_ >= 0) {
      ::close(number_);
    }
  }

  [[nodiscard]] int get() const noexcept { return number_; }
  // False for -1, which open() returns when it fails.
  [[nodiscard]] bool isOpen() const noexcept { return number_ >= 0; }

 private:
  int number_;
};

}  // namespace Korm
