// Plain attributes of entities.
#pragma once

#include <utility>

#include "platform/Korm/Notification.h"

namespace Korm {

// A value that tells its reactors that it changed; setting the value that it has tells nobody.
template <class T>
class Attribute {
 public:
  Attribute() = default;
  explicit Attribute(T value) : value_{std::move(value)} {}

  [[nodiscard]] const T& operator()() const noexcept { return value_; }

  void is(const T& value) {
    if (!(value_ == value)) {
      value_ = value;
      notifiees_.notify();
    }
  }

  // Tells the reactors even when the value is the present one: for counts whose writing is the
  // event.
  void setAndNotify(const T& value) {
    value_ = value;
    notifiees_.notify();
  }

  [[nodiscard]] NotifieeList<>& notifiees() const noexcept { return notifiees_; }

 private:
  T value_{};
  mutable NotifieeList<> notifiees_;
};

}  // namespace Korm
