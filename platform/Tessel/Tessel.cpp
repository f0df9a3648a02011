#include "platform/Tessel/Tessel.h"

#include <algorithm>

#include "platform/Korm/Exceptions.h"

namespace Tessel {
namespace {

constexpr MountFlag none{0};

constexpr MountFlag flagOf(char letter) noexcept {
  switch (letter) {
    case 'w':
      return MountFlag::writable_;
    case 'r':
      return MountFlag::read_;
    case 'c':
      return MountFlag::create_;
    case 'i':
      return MountFlag::immediate_;
    default:
      return none;
  }
}

std::vector<Korm::Name> names(std::string_view path) {
  std::vector<Korm::Name> result;
  while (!path.empty()) {
    const std::size_t length = std::min(path.find('/'), path.size());
    if (length > 0) {
      result.emplace_back(path.substr(0, length));
    }
    path.remove_prefix(std::min(length + 1, path.size()));
  }
  return result;
}

}  // namespace

void MountFlags::parse(std::string_view letters) {
  std::uint32_t parsed = bits;
  for (const char letter : letters) {
    const MountFlag flag = flagOf(letter);
    if (flag == none) {
      throw Korm::ParseException{"mount mode '" + std::string{letters} + "': no flag '" +
                                 std::string{letter} + "'"};
    }
    parsed |= static_cast<std::uint32_t>(flag);
  }
  bits = parsed;
}

Korm::Ptr<Korm::Entity> EntityManager::entity(std::string_view path) const {
  Korm::Ptr<Korm::Entity> found = root_;
  for (const Korm::Name& name : names(path)) {
    const auto dir = Korm::dynamicPtrCast<Korm::Dir>(found);
    if (!dir) {
      return nullptr;
    }
    found = dir->entityPtr(name);
  }
  return found;
}

void EntityManager::entityIs(std::string_view path, Korm::Ptr<Korm::Entity> entity) {
  const std::vector<Korm::Name> way = names(path);
  if (way.empty()) {
    Korm::throwRangeException("EntityManager: the root cannot be replaced");
  }
  Korm::Ptr<Korm::Dir> dir = root_;
  for (std::size_t at = 0; at + 1 < way.size(); ++at) {
    if (!dir->entityPtr(way[at])) {
      dir->entityIs(way[at], Korm::makePtr<Korm::Dir>(way[at]));
    }
    dir = dir->entityPtr<Korm::Dir>(way[at]);
    if (!dir) {
      Korm::throwRangeException("EntityManager: '" + way[at] + "' in path '" + std::string{path} +
                                "' is no directory");
    }
  }
  dir->entityIs(way.back(), std::move(entity));
}

bool EntityManager::isPlaceable(std::string_view path) const {
  const std::vector<Korm::Name> way = names(path);
  Korm::Ptr<Korm::Dir> dir = root_;
  for (std::size_t at = 0; at + 1 < way.size() && dir->entityPtr(way[at]); ++at) {
    dir = dir->entityPtr<Korm::Dir>(way[at]);
    if (!dir) {
      return false;
    }
  }
  return true;
}

Korm::Ptr<Korm::Entity> EntityManager::entityDel(std::string_view path) {
  const std::vector<Korm::Name> way = names(path);
  if (way.empty()) {
    return nullptr;
  }
  const auto last = path.rfind(way.back());
  const auto dir = entity<Korm::Dir>(path.substr(0, last));
  return dir ? dir->entityDel(way.back()) : nullptr;
}

void EntityManager::typeIs(const std::string& typeName, EntityFactory factory) {
  factories_[typeName] = std::move(factory);
}

MountStatus EntityManager::complete(const MountGroup& group) {
  MountStatus status = MountStatus::success_;
  for (const Mount& mount : group.mounts()) {
    if (entity(mount.path)) {
      continue;
    }
    const auto factory = factories_.find(mount.typeName);
    if (!mount.flags.has(MountFlag::create_) || factory == factories_.end() ||
        !isPlaceable(mount.path)) {
      status = MountStatus::failure_;
      continue;
    }
    auto made = factory->second(names(mount.path).back());
    if (!made) {
      status = MountStatus::failure_;
      continue;
    }
    entityIs(mount.path, std::move(made));
  }
  return status;
}

}  // namespace Tessel
