// The state database: entities by path, and the two-phase mount protocol. For the activity thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"

namespace Tessel {

// The mode of a mount, parsed from its letters into bits.
enum class MountFlag : std::uint32_t {
  writable_ = 1,   // w
  read_ = 2,       // r
  create_ = 4,     // c: made when missing
  immediate_ = 8,  // i: complete when the mount completes
};

struct MountFlags {
  std::uint32_t bits = 0;

  // Adds the flags of the letters.
  // Throws: Korm::ParseException for an unknown letter, with no flag added.
  void parse(std::string_view letters);
  [[nodiscard]] bool has(MountFlag flag) const noexcept {
    return (bits & static_cast<std::uint32_t>(flag)) != 0;
  }
  friend bool operator==(const MountFlags&, const MountFlags&) noexcept = default;
};

// One path that a client needs.
struct Mount {
  std::string path;
  std::string typeName;
  MountFlags flags;
  bool filter = false;  // whether only named attributes are mounted
};

enum class MountStatus : std::uint8_t { success_, failure_ };

class EntityManager;

// The mounts that a client declares before they are made, in the order of declaration.
class MountGroup {
 public:
  void mountIs(Mount mount) { mounts_.push_back(std::move(mount)); }
  [[nodiscard]] const std::vector<Mount>& mounts() const noexcept { return mounts_; }

 private:
  std::vector<Mount> mounts_;
};

// Makes an entity of one type under a name.
using EntityFactory = std::function<Korm::Ptr<Korm::Entity>(const Korm::Name&)>;

// The tree of entities. A path is names joined with '/'. Empty names are skipped, so a trailing '/'
// means nothing.
class EntityManager final : public Korm::Entity {
 public:
  EntityManager() : root_{Korm::makePtr<Korm::Dir>()} {}

  // The entity, or null.
  [[nodiscard]] Korm::Ptr<Korm::Entity> entity(std::string_view path) const;
  // The entity as a T; null when it is missing or of another type.
  template <class T>
  [[nodiscard]] Korm::Ptr<T> entity(std::string_view path) const {
    return Korm::dynamicPtrCast<T>(entity(path));
  }
  // Places an entity, and creates the directories above it.
  // Throws: Korm::RangeException when the path is empty or something above it is not a directory.
  void entityIs(std::string_view path, Korm::Ptr<Korm::Entity> entity);
  // The entity removed, or null.
  Korm::Ptr<Korm::Entity> entityDel(std::string_view path);
  [[nodiscard]] Korm::Dir& root() const noexcept { return *root_; }

  // Teaches the manager to create entities of a type for mounts that ask for it.
  void typeIs(const std::string& typeName, EntityFactory factory);
  template <class T>
  void typeIs() {
    typeIs(T::typeName,
           [](const Korm::Name& name) { return Korm::Ptr<Korm::Entity>{Korm::makePtr<T>(name)}; });
  }

  // Makes the mounts of the group. A missing entity is created if its mount has the create flag and
  // its type is known. Succeeds if there is then an entity at every path, of whatever type. All
  // mounts are made even when one fails.
  MountStatus complete(const MountGroup& group);

 private:
  // Whether everything that exists above the path is a directory.
  [[nodiscard]] bool isPlaceable(std::string_view path) const;

  Korm::Ptr<Korm::Dir> root_;
  std::map<std::string, EntityFactory> factories_;
};

}  // namespace Tessel
