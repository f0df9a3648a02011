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
    retain();  // so that pointers which destructors make and drop do not destroy it a second time
    delete this;
  }
}

}  // namespace Korm
