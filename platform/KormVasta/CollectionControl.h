// The state of a shared collection as its entity sees it.
#pragma once

#include "platform/Korm/Entity.h"
#include "platform/Vasta/TableWriter.h"

namespace KormVasta {

// Held by the entity whose table it controls. When the last outside reference to the entity has
// been dropped, the control takes a reference to it: whoever still holds the control then keeps
// both.
class CollectionControl final : public Korm::Entity {
 public:
  [[nodiscard]] bool quiesced() const noexcept { return quiesced_; }
  void quiescedIs(bool quiesced) noexcept { quiesced_ = quiesced; }
  [[nodiscard]] Vasta::MountState mountState() const noexcept { return mountState_; }
  void mountStateIs(Vasta::MountState state) noexcept { mountState_ = state; }

  [[nodiscard]] const Korm::Ptr<Korm::Entity>& entity() const noexcept { return entity_; }
  void entityIs(Korm::Ptr<Korm::Entity> entity) noexcept { entity_ = std::move(entity); }

 private:
  bool quiesced_ = true;
  Vasta::MountState mountState_ = Vasta::MountState::unmounted_;
  Korm::Ptr<Korm::Entity> entity_;
};

}  // namespace KormVasta
