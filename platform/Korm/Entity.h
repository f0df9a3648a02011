// The bases of the framework's objects: counted, notifying, and perhaps named.
#pragma once

#include <string>
#include <utility>

#include "platform/Korm/Notification.h"
#include "platform/Korm/Ptr.h"

namespace Korm {

class Dir;

using String = std::string;
using Name = std::string;

// A counted object whose notifications can be switched on and off as a whole.
class Entity : public Counted {
 public:
  // Off from construction; makeActive() switches it on once the object is whole.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return notificationActive_; }
  void hasNotificationActiveIs(bool active) {
    if (active != notificationActive_) {
      notificationActive_ = active;
      onNotificationActive(active);
    }
  }

  // Told, in attachment order, when the last outside reference has been dropped. A reactor that
  // takes a reference keeps the entity alive. Once that reference is dropped too, all are told
  // again.
  [[nodiscard]] NotifieeList<>& zeroReferencesNotifiees() noexcept { return zeroReferences_; }

  // Called by a directory on the entity that was placed in it.
  virtual void handleParent(Dir& parent);

 protected:
  Entity() = default;
  ~Entity() override = default;

  void onZeroReferences() override { zeroReferences_.notify(); }

  // Called when notifications are switched on or off, to pass that on to the object's reactors.
  virtual void onNotificationActive(bool /*active*/) {}

 private:
  NotifieeList<> zeroReferences_;
  bool notificationActive_ = false;
};

// A new object with its notifications on.
template <class T, class... Args>
[[nodiscard]] Ptr<T> makeActive(Args&&... args) {
  auto object = makePtr<T>(std::forward<Args>(args)...);
  object->hasNotificationActiveIs(true);
  return object;
}

class NamedEntity : public Entity {
 public:
  explicit NamedEntity(Name name) : name_{std::move(name)} {}
  [[nodiscard]] const Name& name() const noexcept { return name_; }

 private:
  const Name name_;
};

}  // namespace Korm
