// Directories: named entities, in the order of their names.
#pragma once

#include <map>

#include "platform/Korm/Entity.h"

namespace Korm {

// Holds a reference to each entity. Its reactors are told the name of each entity that is added,
// replaced or removed.
class Dir final : public NamedEntity {
 public:
  explicit Dir(Name name = {}) : NamedEntity{std::move(name)} {}
  ~Dir() override;

  // Adds the entity, or replaces the one of that name. Null removes it. Nobody is told when the
  // entity is there already.
  // Requires: a named entity has the name under which it is placed.
  // Throws: whatever the entity's handleParent() throws; nothing has changed then.
  void entityIs(const Name& name, Ptr<Entity> entity);
  // The entity removed, or null.
  Ptr<Entity> entityDel(const Name& name);

  // Null when there is no entity of that name or it is of another type.
  template <class T = Entity>
  [[nodiscard]] Ptr<T> entityPtr(const Name& name) const {
    const auto found = entities_.find(name);
    return found == entities_.end() ? Ptr<T>{} : dynamicPtrCast<T>(found->second);
  }

  // All entities in the order of their names. A change of the directory invalidates only iterators
  // to the element that it removes.
  [[nodiscard]] const std::map<Name, Ptr<Entity>>& entities() const noexcept { return entities_; }

  [[nodiscard]] NotifieeList<const Name&>& notifiees() const noexcept { return notifiees_; }

  // The names from the root, joined with '/'. A directory that is in no other is a root.
  [[nodiscard]] std::string path() const;
  void handleParent(Dir& parent) override { parent_ = &parent; }

 private:
  void release(Entity& entity) const noexcept;

  std::map<Name, Ptr<Entity>> entities_;
  mutable NotifieeList<const Name&> notifiees_;
  const Dir* parent_ = nullptr;  // the parent holds a reference to this directory, not the reverse
};

}  // namespace Korm
