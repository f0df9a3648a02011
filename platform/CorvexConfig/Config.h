// The configuration of the static-flow feature as a whole.
#pragma once

#include "platform/Korm/Attribute.h"
#include "platform/Korm/Entity.h"

namespace CorvexConfig {

class Config final : public Korm::NamedEntity {
 public:
  static constexpr const char* typeName = "CorvexConfig::Config";

  using NamedEntity::NamedEntity;

  // Whether the feature is on. It is off at first.
  [[nodiscard]] bool enabled() const noexcept { return enabled_(); }
  void enabledIs(bool enabled) { enabled_.is(enabled); }
  [[nodiscard]] Korm::NotifieeList<>& enabledNotifiees() const noexcept {
    return enabled_.notifiees();
  }

 private:
  Korm::Attribute<bool> enabled_;
};

}  // namespace CorvexConfig
