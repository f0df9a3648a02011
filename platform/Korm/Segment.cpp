#include "platform/Korm/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Korm {
namespace {

constexpr std::size_t pageSize = 4096;
// O_NONBLOCK: opening a FIFO would otherwise wait for a writer.
constexpr int openFlags = O_CLOEXEC | O_NONBLOCK;

constinit SegmentRights rightsInForce;

std::size_t roundUpToPage(std::size_t bytes) { return (bytes + pageSize - 1) & ~(pageSize - 1); }

// Where address space is limited, a segment reserves only a share of it: the other segments and the
// stack need some too.
std::size_t affordable(std::size_t reserve) noexcept {
  constexpr rlim_t share = 64;
  rlimit limit{};
  return ::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
             ? std::min<std::size_t>(reserve, limit.rlim_cur / share)
             : reserve;
}

[[noreturn]] void fail(int error, const std::string& subject, const char* operation) {
  throw std::system_error{error, std::generic_category(), subject + ": " + operation};
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

// Gives the group the right to read, whatever the umask is.
bool grantGroup(int descriptor) {
  constexpr mode_t readableByGroup = S_IRUSR | S_IWUSR | S_IRGRP;
  return !rightsInForce.group ||
         (::fchown(descriptor, static_cast<uid_t>(-1), *rightsInForce.group) == 0 &&
          ::fchmod(descriptor, readableByGroup) == 0);
}

Descriptor createObject(const SegmentName& name, const std::string& subject) {
  Descriptor descriptor{
      ::shm_open(name.text(), O_RDWR | O_CREAT | O_EXCL | openFlags, S_IRUSR | S_IWUSR)};
  if (descriptor.isOpen() && !grantGroup(descriptor.get())) {
    const int error = errno;
    unlinkSegment(name);
    fail(error, subject, "give shared memory to the group");
  }
  return descriptor;
}

bool setLock(int descriptor, short type) noexcept {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return ::fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

void segmentRightsIs(const SegmentRights& rights) noexcept { rightsInForce = rights; }

const SegmentRights& segmentRights() noexcept { return rightsInForce; }

void SegmentName::append(std::string_view text) {
  if (size_ + text.size() > NAME_MAX) {
    throw std::length_error{"not a name for shared memory: '" + std::string{text} + "'"};
  }
  std::copy(text.begin(), text.end(), text_.begin() + static_cast<std::ptrdiff_t>(size_));
  size_ += text.size();
}

void unlinkSegment(const SegmentName& name) noexcept { ::shm_unlink(name.text()); }

std::unique_ptr<Segment> Segment::create(const SegmentName& name, std::size_t reserve,
                                         const std::string& subject) {
  Descriptor descriptor = createObject(name, subject);
  if (!descriptor.isOpen()) {
    fail(errno, subject, "create shared memory");
  }
  return makeNamed(name, std::move(descriptor), reserve, subject);
}

std::unique_ptr<Segment> Segment::createAnonymous(std::size_t reserve, const std::string& subject) {
  Descriptor descriptor{::memfd_create("ostra", MFD_CLOEXEC)};
  if (!descriptor.isOpen()) {
    fail(errno, subject, "create shared memory");
  }
  return make(std::move(descriptor), Access::readWrite_, reserve, subject);
}

Descriptor Segment::openObject(const SegmentName& name, Access access, const std::string& subject) {
  const int mode = access == Access::readOnly_ ? O_RDONLY : O_RDWR;
  Descriptor descriptor{::shm_open(name.text(), mode | openFlags, 0)};
  if (!descriptor.isOpen() && errno != ENOENT) {
    fail(errno, subject, "open shared memory");
  }
  return descriptor;
}

std::unique_ptr<Segment> Segment::open(const SegmentName& name, Access access, std::size_t reserve,
                                       const std::string& subject) {
  Descriptor descriptor = openObject(name, access, subject);
  return descriptor.isOpen() ? make(std::move(descriptor), access, reserve, subject) : nullptr;
}

std::unique_ptr<Segment> Segment::own(const SegmentName& name, std::size_t reserve,
                                      const std::string& subject) {
  for (;;) {
    std::unique_ptr<Segment> segment = open(name, Access::readWrite_, reserve, subject);
    if (segment == nullptr) {
      Descriptor descriptor = createObject(name, subject);
      if (!descriptor.isOpen() && errno != EEXIST) {
        fail(errno, subject, "create shared memory");
      }
      if (!descriptor.isOpen()) {
        continue;
      }
      segment = makeNamed(name, std::move(descriptor), reserve, subject);
    }
    if (!segment->tryLockExclusive()) {
      return nullptr;
    }
    // The previous owner may have removed it after it was opened and before it was locked.
    if (segment->isNamed()) {
      segment->refreshSize();
      return segment;
    }
  }
}

std::unique_ptr<Segment> Segment::make(Descriptor descriptor, Access access, std::size_t reserve,
                                       const std::string& subject) {
  return std::unique_ptr<Segment>{new Segment{std::move(descriptor), access, reserve, subject}};
}

std::unique_ptr<Segment> Segment::makeNamed(const SegmentName& name, Descriptor descriptor,
                                            std::size_t reserve, const std::string& subject) {
  try {
    return make(std::move(descriptor), Access::readWrite_, reserve, subject);
  } catch (...) {
    unlinkSegment(name);
    throw;
  }
}

Segment::Segment(Descriptor descriptor, Access access, std::size_t reserve,
                 const std::string& subject)
    : subject_{subject}, descriptor_{std::move(descriptor)} {
  inspect();
  map(access, reserve);
}

void Segment::inspect() {
  struct stat status {};
  if (::fstat(descriptor_.get(), &status) != 0) {
    fail(errno, subject_, "inspect shared memory");
  }
  if (!S_ISREG(status.st_mode)) {
    fail(EINVAL, subject_, "what has its name is not shared memory");
  }
  if (status.st_uid != ::geteuid() && !rightsInForce.trustOtherUsers) {
    fail(EPERM, subject_, "its shared memory belongs to another user");
  }
  identity_ = status.st_ino;
  size_ = static_cast<std::size_t>(status.st_size);
}

void Segment::refreshSize() {
  struct stat status {};
  if (::fstat(descriptor_.get(), &status) != 0) {
    fail(errno, subject_, "inspect shared memory");
  }
  size_ = static_cast<std::size_t>(status.st_size);
}

void Segment::map(Access access, std::size_t reserve) {
  const int protection = access == Access::readOnly_ ? PROT_READ : PROT_READ | PROT_WRITE;
  const std::size_t least = roundUpToPage(std::max(size(), pageSize));
  for (std::size_t bytes = std::max(roundUpToPage(affordable(reserve)), least);;
       bytes = std::max(roundUpToPage(bytes / 2), least)) {
    void* address =
        ::mmap(nullptr, bytes, protection, MAP_SHARED | MAP_NORESERVE, descriptor_.get(), 0);
    if (address != MAP_FAILED) {
      words_ = static_cast<std::uint64_t*>(address);
      mapped_ = bytes;
      return;
    }
    if (bytes == least) {
      fail(errno, subject_, "map shared memory");
    }
  }
}

Segment::~Segment() { ::munmap(words_, mapped_); }

void Segment::grow(std::size_t bytes) {
  const std::size_t present = size();
  const std::size_t target = roundUpToPage(bytes);
  if (target <= present) {
    return;
  }
  if (target > mapped_) {
    fail(ENOMEM, subject_, "grow shared memory");
  }
  if (const int error = allocate(descriptor_.get(), present, target); error != 0) {
    fail(error, subject_, "grow shared memory");
  }
  // This only saves the page faults of the first writes, so its failure does not matter.
  ::madvise(reinterpret_cast<std::byte*>(words_) + present, target - present, MADV_POPULATE_WRITE);
  size_ = target;
}

void Segment::shrink(std::size_t bytes) noexcept {
  if (bytes < size() && ::ftruncate(descriptor_.get(), static_cast<off_t>(bytes)) == 0) {
    size_ = bytes;
  }
}

// These are locks of the open file. A process would lose its own locks by closing any other
// descriptor of the same object, such as a reader's.
bool Segment::tryLockExclusive() const noexcept { return setLock(descriptor_.get(), F_WRLCK); }

bool Segment::tryLockShared() const noexcept { return setLock(descriptor_.get(), F_RDLCK); }

bool Segment::isLocked() const noexcept {
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return ::fcntl(descriptor_.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool Segment::isNamed() const noexcept {
  struct stat status {};
  return ::fstat(descriptor_.get(), &status) == 0 && status.st_nlink > 0;
}

}  // namespace Korm
