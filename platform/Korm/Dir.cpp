#include "platform/Korm/Dir.h"

namespace Korm {

void Entity::handleParent(Dir& /*parent*/) {}

Dir::~Dir() {
  for (const auto& [name, entity] : entities_) {
    release(*entity);
  }
}

// An entity that leaves may outlive this directory.
void Dir::release(Entity& entity) const noexcept {
  if (auto* const dir = dynamic_cast<Dir*>(&entity); dir != nullptr && dir->parent_ == this) {
    dir->parent_ = nullptr;
  }
}

void Dir::entityIs(const Name& name, Ptr<Entity> entity) {
  if (!entity) {
    entityDel(name);
    return;
  }
  if (const auto found = entities_.find(name);
      found != entities_.end() && found->second == entity) {
    return;
  }
  const Name copy = name;
  entity->handleParent(*this);
  const Ptr<Entity> replaced = std::exchange(entities_[copy], std::move(entity));
  if (replaced) {
    release(*replaced);
  }
  notifiees_.notify(copy);  // the replaced entity is released after the notification
}

Ptr<Entity> Dir::entityDel(const Name& name) {
  const auto found = entities_.find(name);
  if (found == entities_.end()) {
    return nullptr;
  }
  auto node = entities_.extract(found);
  release(*node.mapped());
  notifiees_.notify(node.key());
  return std::move(node.mapped());
}

std::string Dir::path() const {
  if (parent_ == nullptr) {
    return name();
  }
  const std::string above = parent_->path();
  return above.empty() ? name() : above + "/" + name();
}

}  // namespace Korm
