// One piece of shared memory: a named object of the system, or an anonymous one, and its mapping.
//
// Threads: a segment is created, grown and shrunk by one thread. Its mapped words may be read by
// any thread and, when it is named, by any process that opens it.
// Ownership: owns its descriptor and its mapping.
// Invariants: the mapping never moves. Its bytes up to size() are allocated, so reading or writing
// them cannot run out of memory. Bytes beyond size() may be mapped but must not be accessed. If
// somebody truncates the object under the mapping, an access behind its end raises SIGBUS; only the
// owner of the object and the superuser are able to do that.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Korm/Descriptor.h"

namespace Korm {

// Who may use the named segments of this process. Set before the first one is made.
struct SegmentRights {
  std::optional<gid_t> group;  // may read what this process creates; nobody else may, but its user
  bool trustOtherUsers = false;  // open segments that belong to another user
};
void segmentRightsIs(const SegmentRights& rights) noexcept;
[[nodiscard]] const SegmentRights& segmentRights() noexcept;

// The name of a segment. Its characters stand in the object itself, so using it never allocates.
class SegmentName {
 public:
  // Throws: std::length_error when the text is too long for the system.
  explicit SegmentName(std::string_view text) { append(text); }
  void append(std::string_view text);
  [[nodiscard]] const char* text() const noexcept { return text_.data(); }
  [[nodiscard]] std::size_t size() const noexcept { return size_; }

 private:
  std::array<char, NAME_MAX + 1> text_{};
  std::size_t size_ = 0;
};

// Removes the named object if there is one. Existing mappings stay valid.
void unlinkSegment(const SegmentName& name) noexcept;

class Segment {
 public:
  enum class Access { readOnly_, readWrite_ };

  // `subject` names what the segment belongs to, for error messages. `reserve` is the address space
  // to map in bytes; when the system does not grant that much, less is mapped, down to the present
  // size, and growth ends there.
  // Throws: std::system_error when the system refuses, when the object is not a plain shared-memory
  // object, or when it belongs to another user and such are not trusted.

  // A new and empty object.
  // Requires: `name` does not exist.
  [[nodiscard]] static std::unique_ptr<Segment> create(const SegmentName& name, std::size_t reserve,
                                                       const std::string& subject);
  [[nodiscard]] static std::unique_ptr<Segment> createAnonymous(std::size_t reserve,
                                                                const std::string& subject);
  // An existing object; null when there is none of that name.
  [[nodiscard]] static std::unique_ptr<Segment> open(const SegmentName& name, Access access,
                                                     std::size_t reserve,
                                                     const std::string& subject);
  // The object of that name, created empty when it is missing and locked for this owner; null when
  // another owner has it.
  [[nodiscard]] static std::unique_ptr<Segment> own(const SegmentName& name, std::size_t reserve,
                                                    const std::string& subject);

  // Calls use(segment) for the existing object; false when there is none of that name. It allocates
  // nothing unless it fails, so it can clean up when memory has run out.
  // Throws: as open(), and what `use` throws.
  template <class Use>
  static bool with(const SegmentName& name, Access access, std::size_t reserve,
                   const std::string& subject, Use use) {
    Descriptor descriptor = openObject(name, access, subject);
    if (!descriptor.isOpen()) {
      return false;
    }
    Segment segment{std::move(descriptor), access, reserve, subject};
    use(segment);
    return true;
  }

  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  [[nodiscard]] std::uint64_t* words() const noexcept { return words_; }
  [[nodiscard]] std::size_t mapped() const noexcept { return mapped_; }
  [[nodiscard]] std::size_t size() const noexcept { return size_.load(std::memory_order_relaxed); }
  // Reads the size again: size() does not follow when another process grows the object.
  void refreshSize();
  // Identifies the object for as long as anyone has it open.
  [[nodiscard]] std::uint64_t identity() const noexcept { return identity_; }

  // Allocates up to `bytes` in all.
  // Throws: std::system_error when memory, the mapping, or the process's file-size limit runs out;
  // the segment is unchanged then.
  void grow(std::size_t bytes);
  // Releases the memory beyond `bytes`.
  // Requires: nobody reads there any more, in any process.
  void shrink(std::size_t bytes) noexcept;

  // Lock the whole object, exclusively or shared, without waiting. The system releases a lock when
  // the last descriptor of this opening is closed, however the process ends. A child made by fork()
  // without exec holds the lock too.
  [[nodiscard]] bool tryLockExclusive() const noexcept;
  [[nodiscard]] bool tryLockShared() const noexcept;
  // Whether another opening of the object holds the exclusive lock.
  [[nodiscard]] bool isLocked() const noexcept;

  // Whether the object still has a name. False once it was unlinked.
  [[nodiscard]] bool isNamed() const noexcept;

 private:
  Segment(Descriptor descriptor, Access access, std::size_t reserve, const std::string& subject);
  // Not open when there is no such object.
  [[nodiscard]] static Descriptor openObject(const SegmentName& name, Access access,
                                             const std::string& subject);
  [[nodiscard]] static std::unique_ptr<Segment> make(Descriptor descriptor, Access access,
                                                     std::size_t reserve,
                                                     const std::string& subject);
  // For an object that is created here; it is removed again when the constructor fails.
  [[nodiscard]] static std::unique_ptr<Segment> makeNamed(const SegmentName& name,
                                                          Descriptor descriptor,
                                                          std::size_t reserve,
                                                          const std::string& subject);
  void inspect();
  void map(Access access, std::size_t reserve);

  // Constant after construction.
  const std::string subject_;
  const Descriptor descriptor_;
  std::uint64_t* words_ = nullptr;
  std::size_t mapped_ = 0;
  std::uint64_t identity_ = 0;
  // Written by the owner's thread, and by readers in its process.
  std::atomic<std::size_t> size_{0};
};

}  // namespace Korm
