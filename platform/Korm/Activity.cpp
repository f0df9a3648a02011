#include "platform/Korm/Activity.h"

namespace Korm {

Activity& activity() noexcept {
  static Activity queue;
  return queue;
}

}  // namespace Korm
