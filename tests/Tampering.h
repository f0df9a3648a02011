// What happens to a process from outside: its shared memory is damaged, its resources are limited.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Korm/Segment.h"
#include "tests/Testing.h"

namespace TestSupport {

// What a fault in memory, or a stranger with write access, does to a segment.
class Tampering {
 public:
  explicit Tampering(const Korm::SegmentName& segment) {
    const int descriptor = ::shm_open(segment.text(), O_RDWR, 0);
    struct stat status {};
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0) {
      throw std::runtime_error{std::string{"no segment "} + segment.text()};
    }
    size_ = static_cast<std::size_t>(status.st_size);
    bytes_ = static_cast<std::uint8_t*>(
        ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    ::close(descriptor);
  }
  ~Tampering() { ::munmap(bytes_, size_); }
  Tampering(const Tampering&) = delete;
  Tampering& operator=(const Tampering&) = delete;

  // Flips a bit in every place where these bytes stand.
  void flip(const void* pattern, std::size_t size) {
    const auto* begin = static_cast<const std::uint8_t*>(pattern);
    for (auto* at = std::search(bytes_, bytes_ + size_, begin, begin + size); at != bytes_ + size_;
         at = std::search(at, bytes_ + size_, begin, begin + size)) {
      *at ^= 0x10U;
    }
  }
  void flipByte(std::size_t offset, std::uint8_t bits = 0x10U) { bytes_[offset] ^= bits; }
  void wordIs(std::size_t at, std::uint64_t word) {
    std::memcpy(bytes_ + at * sizeof word, &word, sizeof word);
  }
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] std::uint64_t word(std::size_t at) const {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes_ + at * sizeof word, sizeof word);
    return word;
  }

 private:
  std::uint8_t* bytes_ = nullptr;
  std::size_t size_ = 0;
};

// Holds a resource of the process to a limit.
class Limit {
 public:
  Limit(int resource, rlim_t limit) : resource_{resource} {
    ::getrlimit(resource, &before_);
    rlimit limited = before_;
    limited.rlim_cur = limit;
    ::setrlimit(resource, &limited);
  }
  ~Limit() { ::setrlimit(resource_, &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  const int resource_;
  rlimit before_{};
};

}  // namespace TestSupport
