#include "platform/Brisklog/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/Brisklog/Ring.h"

namespace Brisklog::detail {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& what, int error = 0) {
  const std::string ring = name.empty() ? "trace ring" : "trace ring '" + name + "'";
  const std::string reason = error == 0 ? "" : ": " + std::generic_category().message(error);
  throw RingError(ring + ": " + what + reason);
}

std::string shmPath(const std::string& name) { return name.front() == '/' ? name : '/' + name; }

class File {
 public:
  explicit File(int descriptor) noexcept : descriptor_(descriptor) {}
  File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  File& operator=(File&&) = delete;
  ~File() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }

  [[nodiscard]] int get() const noexcept { return descriptor_; }
  [[nodiscard]] bool isOpen() const noexcept { return descriptor_ >= 0; }
  [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

// A lock of the open file and not of the process, which would lose it by closing any other descriptor of
// the same segment, a reader's for instance.
bool takeOwnership(const File& file) noexcept {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return ::fcntl(file.get(), F_OFD_SETLK, &lock) == 0;
}

bool isNamed(int file) noexcept {
  struct stat status {};
  return ::fstat(file, &status) == 0 && status.st_nlink > 0;
}

// Removes what a dead owner left under the name.
void removeStale(const std::string& name, const std::string& path) {
  const File stale(::shm_open(path.c_str(), O_RDWR | O_CLOEXEC, 0));
  if (!stale.isOpen()) {
    if (errno == ENOENT) {
      return;
    }
    fail(name, "cannot be opened", errno);
  }
  if (!takeOwnership(stale)) {
    fail(name, "another process owns it");
  }
  // With the lock held, a name that is still this file's cannot be given to another one.
  if (isNamed(stale.get())) {
    ::shm_unlink(path.c_str());
  }
}

// A fresh segment that nobody else has taken for a stale one in the instant before it was locked.
File createOwned(const std::string& name, const std::string& path) {
  for (;;) {
    File file(::shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (file.isOpen()) {
      if (takeOwnership(file) && isNamed(file.get())) {
        return file;
      }
    } else if (errno == EEXIST) {
      removeStale(name, path);
    } else {
      fail(name, "cannot be created", errno);
    }
  }
}

// Memory that is not there must be found out now and not by a signal in the middle of a trace.
void allocate(const std::string& name, std::size_t bytes, const File& file) {
  int error = EINTR;
  while (error == EINTR) {
    error = ::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes));
  }
  if (error != 0) {
    fail(name, "memory cannot be allocated", error);
  }
}

void* map(const std::string& name, std::size_t bytes, int protection, int flags, int file) {
  void* const address = ::mmap(nullptr, bytes, protection, flags, file, 0);
  if (address == MAP_FAILED) {
    fail(name, "cannot be mapped", errno);
  }
  return address;
}

}  // namespace

std::unique_ptr<Segment> Segment::createAnonymous(std::size_t bytes) {
  // Private, so that a forked child has a ring of its own.
  constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE;
  void* const address = map("", bytes, PROT_READ | PROT_WRITE, flags, -1);
  return std::unique_ptr<Segment>(new Segment(address, bytes, -1));
}

std::unique_ptr<Segment> Segment::createNamed(const std::string& name, std::size_t bytes) {
  const std::string path = shmPath(name);
  File file = createOwned(name, path);
  try {
    allocate(name, bytes, file);
    void* const address =
        map(name, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file.get());
    return std::unique_ptr<Segment>(new Segment(address, bytes, file.release()));
  } catch (...) {
    ::shm_unlink(path.c_str());
    throw;
  }
}

std::unique_ptr<Segment> Segment::openReadOnly(const std::string& name) {
  if (name.empty()) {
    fail(name, "an anonymous ring has no name to attach by");
  }
  File file(::shm_open(shmPath(name).c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (!file.isOpen()) {
    fail(name, "cannot be opened", errno);
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) {
    fail(name, "cannot be examined", errno);
  }
  const auto bytes = static_cast<std::size_t>(status.st_size);
  if (bytes < headerWords * sizeof(Word)) {
    fail(name, "too short to be one, or not ready yet");
  }
  void* const address = map(name, bytes, PROT_READ, MAP_SHARED, file.get());
  return std::unique_ptr<Segment>(new Segment(address, bytes, file.release()));
}

bool Segment::exists(const std::string& name) {
  return File(::shm_open(shmPath(name).c_str(), O_RDONLY | O_CLOEXEC, 0)).isOpen();
}

Segment::~Segment() {
  ::munmap(address_, bytes_);
  if (file_ >= 0) {
    ::close(file_);
  }
}

bool Segment::ownerLives() const noexcept {
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return ::fcntl(file_, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool Segment::hasName() const noexcept { return isNamed(file_); }

void Segment::removeName(const std::string& name) const noexcept {
  if (hasName()) {
    ::shm_unlink(shmPath(name).c_str());
  }
}

}  // namespace Brisklog::detail
