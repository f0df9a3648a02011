#include "platform/Vasta/Segment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <stdexcept>

#include "platform/Korm/Text.h"
#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

constexpr mode_t segmentMode = 0644;
constexpr std::size_t pageSize = 4096;
// Room for the suffixes of the other segments.
constexpr std::size_t longestHeaderName = NAME_MAX - 32;

std::size_t roundUpToPage(std::size_t bytes) { return (bytes + pageSize - 1) & ~(pageSize - 1); }

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

// Growing past the limit would raise a signal rather than fail.
bool exceedsFileSizeLimit(std::size_t bytes) {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
         bytes > limit.rlim_cur;
}

int allocate(int descriptor, std::size_t from, std::size_t to) {
  if (exceedsFileSizeLimit(to)) {
    return EFBIG;
  }
  int error = 0;
  do {
    error = ::posix_fallocate(descriptor, static_cast<off_t>(from), static_cast<off_t>(to - from));
  } while (error == EINTR);
  return error;
}

}  // namespace

SegmentNames::SegmentNames(std::string_view shmName) : header_{"/vasta."} {
  for (const char c : shmName) {
    if (isPlain(c)) {
      header_ += c;
    } else {
      header_ += '%';
      Korm::appendHex(header_, static_cast<unsigned char>(c));
    }
  }
  if (shmName.empty() || header_.size() > longestHeaderName) {
    throw std::invalid_argument{"not a name for a shared table: '" + std::string{shmName} + "'"};
  }
}

void unlinkSegment(const std::string& name) noexcept { ::shm_unlink(name.c_str()); }

std::unique_ptr<Segment> Segment::create(const std::string& name, std::size_t reserve,
                                         const std::string& table) {
  const int descriptor = name.empty()
                             ? ::memfd_create("vasta", MFD_CLOEXEC)
                             : ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, segmentMode);
  if (descriptor < 0) {
    throwSystemError(errno, table, "create shared memory");
  }
  return std::unique_ptr<Segment>{new Segment{descriptor, Access::readWrite_, reserve, table}};
}

std::unique_ptr<Segment> Segment::open(const std::string& name, Access access, std::size_t reserve,
                                       const std::string& table) {
  const int mode = access == Access::readOnly_ ? O_RDONLY : O_RDWR;
  const int descriptor = ::shm_open(name.c_str(), mode, 0);
  if (descriptor < 0) {
    if (errno == ENOENT) {
      return nullptr;
    }
    throwSystemError(errno, table, "open shared memory");
  }
  return std::unique_ptr<Segment>{new Segment{descriptor, access, reserve, table}};
}

std::unique_ptr<Segment> Segment::openOrCreate(const std::string& name, std::size_t reserve,
                                               const std::string& table) {
  const int descriptor = ::shm_open(name.c_str(), O_RDWR | O_CREAT, segmentMode);
  if (descriptor < 0) {
    throwSystemError(errno, table, "open shared memory");
  }
  return std::unique_ptr<Segment>{new Segment{descriptor, Access::readWrite_, reserve, table}};
}

Segment::Segment(int descriptor, Access access, std::size_t reserve, const std::string& table)
    : table_{table}, descriptor_{descriptor} {
  try {
    refreshSize();
    map(access, reserve);
  } catch (...) {
    ::close(descriptor_);
    throw;
  }
}

void Segment::refreshSize() {
  struct stat status {};
  if (::fstat(descriptor_, &status) != 0) {
    throwSystemError(errno, table_, "inspect shared memory");
  }
  identity_ = status.st_ino;
  size_ = static_cast<std::size_t>(status.st_size);
}

void Segment::map(Access access, std::size_t reserve) {
  const int protection = access == Access::readOnly_ ? PROT_READ : PROT_READ | PROT_WRITE;
  const std::size_t least = roundUpToPage(std::max(size(), pageSize));
  for (std::size_t bytes = std::max(roundUpToPage(reserve), least);;
       bytes = std::max(roundUpToPage(bytes / 2), least)) {
    void* address = ::mmap(nullptr, bytes, protection, MAP_SHARED | MAP_NORESERVE, descriptor_, 0);
    if (address != MAP_FAILED) {
      words_ = static_cast<std::uint64_t*>(address);
      mapped_ = bytes;
      return;
    }
    if (bytes == least) {
      throwSystemError(errno, table_, "map shared memory");
    }
  }
}

Segment::~Segment() {
  ::munmap(words_, mapped_);
  ::close(descriptor_);
}

void Segment::grow(std::size_t bytes) {
  const std::size_t present = size();
  const std::size_t target = roundUpToPage(bytes);
  if (target <= present) {
    return;
  }
  if (target > mapped_) {
    throwSystemError(ENOMEM, table_, "grow shared memory");
  }
  if (const int error = allocate(descriptor_, present, target); error != 0) {
    throwSystemError(error, table_, "grow shared memory");
  }
  // Only saves the page faults of the first writes: a system that cannot do it is no worse off.
  ::madvise(reinterpret_cast<std::byte*>(words_) + present, target - present, MADV_POPULATE_WRITE);
  size_ = target;
}

void Segment::shrink(std::size_t bytes) noexcept {
  if (bytes < size() && ::ftruncate(descriptor_, static_cast<off_t>(bytes)) == 0) {
    size_ = bytes;
  }
}

bool Segment::tryLockExclusive() const noexcept {
  return ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
}

bool Segment::tryLockShared() const noexcept {
  return ::flock(descriptor_, LOCK_SH | LOCK_NB) == 0;
}

bool Segment::isNamed(const std::string& name) const noexcept {
  const int other = ::shm_open(name.c_str(), O_RDONLY, 0);
  if (other < 0) {
    return false;
  }
  struct stat status {};
  const bool same = ::fstat(other, &status) == 0 && status.st_ino == identity_;
  ::close(other);
  return same;
}

}  // namespace Vasta
