// One piece of shared memory: a named object of the system, or an anonymous one, and its mapping.
//
// Thread and process rule: a segment is created, grown and shrunk by one thread; its mapped words may
// be read by any thread and, when it is named, by any process that opens it.
//
// Ownership and invariants: owns its descriptor and its mapping. The mapping never moves. Its bytes up
// to size() are allocated, never sparse: to touch them cannot run out of memory. Nothing beyond
// size() may be touched although it may be mapped.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Vasta {

// The names of the shared-memory objects of one table. A table's name may contain any character; two
// different names never share an object.
class SegmentNames {
 public:
  // Throws std::invalid_argument for an empty name or one too long for the system.
  explicit SegmentNames(std::string_view shmName);

  [[nodiscard]] const std::string& header() const noexcept { return header_; }
  [[nodiscard]] std::string rows() const { return header_ + "#rows"; }
  [[nodiscard]] std::string index(std::uint64_t generation) const {
    return header_ + "#index." + std::to_string(generation);
  }

 private:
  std::string header_;
};

// Removes the named object if there is one. Mappings of it stay good.
void unlinkSegment(const std::string& name) noexcept;

class Segment {
 public:
  enum class Access { readOnly_, readWrite_ };

  // All of these throw std::system_error naming `table` when the system refuses. `reserve` is the
  // address space to map in bytes; when the system does not grant that much, less is mapped, down to
  // the present size, and growth ends there.

  // A new object, empty; `name` must not exist. An empty name makes an anonymous object.
  [[nodiscard]] static std::unique_ptr<Segment> create(const std::string& name, std::size_t reserve,
                                                       const std::string& table);
  // An existing object; null when there is none of that name.
  [[nodiscard]] static std::unique_ptr<Segment> open(const std::string& name, Access access,
                                                     std::size_t reserve, const std::string& table);
  // The object of that name for writing, created empty when it is missing.
  [[nodiscard]] static std::unique_ptr<Segment> openOrCreate(const std::string& name,
                                                             std::size_t reserve,
                                                             const std::string& table);

  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  [[nodiscard]] std::uint64_t* words() const noexcept { return words_; }
  [[nodiscard]] std::size_t size() const noexcept { return size_.load(std::memory_order_relaxed); }
  [[nodiscard]] std::size_t mapped() const noexcept { return mapped_; }
  // size() is what it was at open() while another process grows the object; this looks again.
  void refreshSize();
  // Identifies the object for as long as anyone has it open.
  [[nodiscard]] std::uint64_t identity() const noexcept { return identity_; }

  // Allocates up to `bytes` in all. Throws std::system_error when memory, the mapping, or the
  // process's file-size limit runs out, and is unchanged then.
  void grow(std::size_t bytes);
  // Gives back what lies beyond `bytes`. Nobody may read there any more, in any process.
  void shrink(std::size_t bytes) noexcept;

  // Whole-object locks, exclusive (one holder) or shared, which the system releases when the last
  // descriptor goes, however its process ends. They never wait.
  [[nodiscard]] bool tryLockExclusive() const noexcept;
  [[nodiscard]] bool tryLockShared() const noexcept;

  // Whether `name` still leads to this object.
  [[nodiscard]] bool isNamed(const std::string& name) const noexcept;

 private:
  Segment(int descriptor, Access access, std::size_t reserve, const std::string& table);
  void map(Access access, std::size_t reserve);

  // Constant after construction.
  const std::string table_;
  const int descriptor_;
  std::uint64_t* words_ = nullptr;
  std::size_t mapped_ = 0;
  std::uint64_t identity_ = 0;
  // The owner's thread; readers in its process look at it.
  std::atomic<std::size_t> size_{0};
};

}  // namespace Vasta
