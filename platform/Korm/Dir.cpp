#include "platform/Korm/Dir.h"

namespace Korm {

void Entity::handleParent(Dir& /*parent*/) {}

void Dir::entityIs(const Name& name, Ptr<Entity> entity) {
  if (!entity) {
    entityDel(name);
    return;
  }
  Ptr<Entity>& place = entities_[name];
  if (place == entity) {
    return;
  }
  const Ptr<Entity> replaced = std::exchange(place, entity);  // goes once everybody has been told
  entity->handleParent(*this);
  const Name copy = name;
  notifiees_.notify(copy);
}

Ptr<Entity> Dir::entityDel(const Name& name) {
  const auto found = entities_.find(name);
  if (found == entities_.end()) {
    return nullptr;
  }
  auto node = entities_.extract(found);
  if (auto* const dir = dynamic_cast<Dir*>(node.mapped().get()); dir != nullptr) {
    dir->parent_ = nullptr;
  }
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
