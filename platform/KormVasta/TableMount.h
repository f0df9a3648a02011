// Access to the shared-memory tables of a state database. For the activity thread.
#pragma once

#include <string_view>

#include "platform/Korm/Ptr.h"
#include "platform/Tessel/Tessel.h"

namespace KormVasta {

// Finds the tables in the tree of an entity manager, and holds a reference to the manager.
class TableMount final : public Korm::Entity {
 public:
  explicit TableMount(Korm::Ptr<Tessel::EntityManager> manager) : manager_{std::move(manager)} {}

  // Finishes the mount; before that no table is found.
  void handleInitialized() noexcept { initialized_ = true; }

  // The table at a path; null when it is missing or of another type.
  template <class Table>
  [[nodiscard]] Korm::Ptr<Table> table(std::string_view path) const {
    return initialized_ && manager_ ? manager_->entity<Table>(path) : nullptr;
  }

 private:
  Korm::Ptr<Tessel::EntityManager> manager_;
  bool initialized_ = false;
};

}  // namespace KormVasta
