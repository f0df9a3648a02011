// A mutex whose use Clang checks (-Wthread-safety): data declared KORM_GUARDED_BY(mutex) may only
// be accessed while a Lock holds that mutex. Other compilers see a plain std::mutex.
#pragma once

#include <mutex>

// These are macros because other compilers do not know the attributes.
#if defined(__clang__)
#define KORM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORM_THREAD_ANNOTATION(x)
#endif
#define KORM_GUARDED_BY(mutex) KORM_THREAD_ANNOTATION(guarded_by(mutex))
#define KORM_REQUIRES(mutex) KORM_THREAD_ANNOTATION(requires_capability(mutex))

namespace Korm {

class KORM_THREAD_ANNOTATION(capability("mutex")) Mutex {
 public:
  void lock() KORM_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
  void unlock() KORM_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a mutex for its lifetime.
class KORM_THREAD_ANNOTATION(scoped_lockable) Lock {
 public:
  explicit Lock(Mutex& mutex) KORM_THREAD_ANNOTATION(acquire_capability(mutex)) : mutex_{mutex} {
    mutex_.lock();
  }
  ~Lock() KORM_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Korm
