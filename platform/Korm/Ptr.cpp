#include "platform/Korm/Ptr.h"

#include "platform/Korm/Exceptions.h"

namespace Korm {

void threadSafePtrIs(bool threadSafe) noexcept {
  assertTrue(threadSafe == threadSafePtr() || !detail::ptrInUse.load(std::memory_order_relaxed),
             "the thread-safe pointer switch is set before the first entity exists");
  detail::ptrThreadSafe.store(threadSafe, std::memory_order_relaxed);
}

void Counted::zeroReferences() {
  retain();
  onZeroReferences();
  if (dropReference()) {
    retain();  // a destructor may make and drop a pointer, which must not destroy it again
    delete this;
  }
}

}  // namespace Korm
