// Dry runs, and trace points for code that they execute too, where they trace nothing. Private to
// the library.
#pragma once

#include "platform/Brisklog/TracePoint.h"

namespace Ostra {

// While one exists, no StepTrace traces anything, and damaged rows are not reported. For the
// activity thread.
class DryRun {
 public:
  DryRun() noexcept { ++depth_; }
  ~DryRun() { --depth_; }
  DryRun(const DryRun&) = delete;
  DryRun& operator=(const DryRun&) = delete;

  [[nodiscard]] static bool active() noexcept { return depth_ != 0; }

 private:
  static inline int depth_ = 0;
};

class StepTrace final : public Brisklog::TracePoint {
 public:
  using TracePoint::TracePoint;

  template <class... Args>
  void operator()(const Args&... args) const noexcept {
    if (!DryRun::active()) [[likely]] {
      TracePoint::operator()(args...);
    }
  }
};

}  // namespace Ostra
