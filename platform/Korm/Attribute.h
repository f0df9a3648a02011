// Plain attributes of entities.
#pragma once

#include <utility>

#include "platform/Korm/Notification.h"

namespace Korm {

// A value that notifies its reactors when it changes. Setting the value that it already has
// notifies nobody.
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

  // Notifies the reactors even when the value does not change. For counts: writing one is the
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
