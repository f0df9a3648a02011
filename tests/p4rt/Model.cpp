#include "tests/p4rt/Model.h"

namespace P4rtTest {
namespace {

using p4::v1::Entity;

constexpr int noEncap = 77;

unsigned numberOf(const std::string& bytes) {
  unsigned number = 0;
  for (const char byte : bytes) {
    number = number << 8U | static_cast<unsigned char>(byte);
  }
  return number;
}

// The id of an entry's own action, and its parameters as numbers.
struct Own {
  explicit Own(const p4::v1::Action& action) : id{action.action_id() & 0xFFU} {
    for (const auto& param : action.params()) {
      params.push_back(numberOf(param.value()));
    }
  }
  explicit Own(const Entity& entity) : Own{entity.table_entry().action().action()} {}
  unsigned id;
  std::vector<unsigned> params{};
};

bool contains(const Texts& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

const auto& oneShotOf(const Entity& entity) {
  return entity.table_entry().action().action_profile_action_set().action_profile_actions();
}

// The key of an entity.
std::string keyOf(Entity entity) {
  if (entity.has_action_profile_group()) {
    return "group " + std::to_string(entity.action_profile_group().group_id());
  }
  if (entity.has_action_profile_member()) {
    return "member " + std::to_string(entity.action_profile_member().member_id());
  }
  p4::v1::TableEntry& entry = *entity.mutable_table_entry();
  entry.clear_action();
  entry.clear_metadata();
  entry.clear_controller_metadata();
  return entity.ShortDebugString();
}

Texts usesOf(const Entity& entity) {
  Texts uses;
  for (const auto& one : entity.action_profile_group().members()) {
    uses.push_back("member " + std::to_string(one.member_id()));
  }
  const p4::v1::TableAction& action = entity.table_entry().action();
  const Own own{entity};
  if (action.has_action_profile_member_id()) {
    uses.push_back("member " + std::to_string(action.action_profile_member_id()));
  } else if (action.has_action_profile_group_id()) {
    uses.push_back("group " + std::to_string(action.action_profile_group_id()));
  } else if (own.id == 9 || own.id == 10) {
    uses.push_back((own.id == 9 ? "member " : "group ") + std::to_string(own.params[0]));
  }
  return uses;
}

// What is wrong with it, whatever is stored.
std::string ownFaultOf(const Entity& entity) {
  const auto isBad = [](const p4::v1::Action& action) { return Own{action}.params[1] == noEncap; };
  const auto& shots = oneShotOf(entity);
  if ((entity.has_action_profile_member() && isBad(entity.action_profile_member().action())) ||
      std::any_of(shots.begin(), shots.end(),
                  [&](const auto& one) { return isBad(one.action()); })) {
    return "FAILED_PRECONDITION/15";
  }
  int weights = 0;
  for (const auto& member : entity.action_profile_group().members()) {
    weights += member.weight();
  }
  if (weights > entity.action_profile_group().max_size()) {
    return "RESOURCE_EXHAUSTED";
  }
  const Own own{entity};
  if ((own.id == 3 && own.params[0] == 0) || (own.id == 5 && own.params[1] == 0)) {
    return "INVALID_ARGUMENT/15";
  }
  return own.id == 6 && own.params[0] > 16 ? "OUT_OF_RANGE" : "";
}

}  // namespace

std::string codeName(std::int32_t code) {
  std::istringstream names{
      "OK CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS "
      "PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE "
      "UNIMPLEMENTED INTERNAL UNAVAILABLE"};
  return *std::next(std::istream_iterator<std::string>{names}, code);
}

std::string wordOf(const p4::v1::Error& error) {
  EXPECT_EQ(error.canonical_code() == 0, error.message().empty());
  return codeName(error.canonical_code()) +
         (error.code() == 0 ? "" : "/" + std::to_string(error.code()));
}

std::string Model::apply(const Update& update) {
  const Entity& entity = update.entity();
  const std::string key = keyOf(entity);
  const bool there = entities_.contains(key);
  if (there == (update.type() == Update::INSERT)) {
    return there ? "ALREADY_EXISTS" : "NOT_FOUND";
  }
  if (update.type() == Update::DELETE) {
    const bool isUsed = std::any_of(entities_.begin(), entities_.end(), [&](const auto& one) {
      return contains(usesOf(one.second), key);
    });
    entities_.erase(isUsed ? "" : key);
    return isUsed ? "FAILED_PRECONDITION" : "OK";
  }
  if (entity.has_table_entry() && !entity.table_entry().has_action()) {
    p4::v1::TableEntry& entry = *entities_[key].mutable_table_entry();
    entry.set_metadata(entity.table_entry().metadata());
    entry.set_controller_metadata(entity.table_entry().controller_metadata());
    return "OK";
  }
  if (const std::string fault = faultOf(update); !fault.empty()) {
    return fault;
  }
  entities_[key] = entity;
  return "OK";
}

std::string Model::faultOf(const Update& update) const {
  const Entity& entity = update.entity();
  const Texts uses = usesOf(entity);
  // One shots exclude members and groups. The members of a group are checked before that.
  const bool isShot = !oneShotOf(entity).empty();
  const bool isIndirect = entity.has_table_entry()
                              ? entity.table_entry().table_id() == ecmpId
                              : update.type() == Update::INSERT && uses.empty();
  for (const auto& [key, other] : entities_) {
    if (isShot ? !other.has_table_entry() : isIndirect && !oneShotOf(other).empty()) {
      return "INVALID_ARGUMENT";
    }
  }
  for (const std::string& used : uses) {
    if (!entities_.contains(used)) {
      return "NOT_FOUND";
    }
  }
  if (const std::string fault = ownFaultOf(entity); !fault.empty()) {
    return fault;
  }
  if (entity.has_action_profile_group()) {
    const bool empties = update.type() == Update::MODIFY && uses.empty() &&
                         !usesOf(entities_.at(keyOf(entity))).empty();
    return empties ? "UNIMPLEMENTED" : "";
  }
  for (const std::string& used : uses) {
    if (used[0] == 'g' && usesOf(entities_.at(used)).empty()) {
      return "FAILED_PRECONDITION/16";
    }
  }
  return "";
}

void Model::answered(const WriteRequest& request, const Texts& outcomes, const Texts& ofHardware) {
  const bool rollsBack = request.atomicity() == WriteRequest::ROLLBACK_ON_ERROR;
  Model next = *this;
  bool failed = false;
  for (int at = 0; at < request.updates_size(); ++at) {
    const std::string& outcome =
        outcomes.at(outcomes == Texts{"OK"} ? 0 : static_cast<std::size_t>(at));
    if (rollsBack && outcome == "ABORTED") {
      failed = true;
      continue;
    }
    Model tried = next;
    const std::string expected = tried.apply(request.updates(at));
    if (outcome != expected && !(rollsBack && failed)) {
      // The hardware may refuse an update before the library does.
      const bool reached = expected == "OK" || expected.find('/') != std::string::npos;
      EXPECT_TRUE(reached && contains(ofHardware, outcome))
          << at << ": " << request.updates(at).ShortDebugString() << "\n expected " << expected
          << ", was " << outcome;
    }
    failed = failed || outcome != "OK";
    if (outcome == "OK") {
      next = std::move(tried);
    }
  }
  if (!rollsBack || !failed) {
    *this = next;
  } else {
    EXPECT_EQ(std::count(outcomes.begin(), outcomes.end(), "OK"), 0) << "all is rolled back";
  }
}

std::vector<Model> Model::outcomes(const WriteRequest& request) const {
  std::vector<Model> parts{*this};
  bool whole = true;
  for (const Update& update : request.updates()) {
    Model next = parts.back();
    whole = next.apply(update) == "OK" && whole;
    parts.push_back(std::move(next));
  }
  if (request.atomicity() == WriteRequest::ROLLBACK_ON_ERROR) {
    return whole ? std::vector{parts.front(), parts.back()} : std::vector{parts.front()};
  }
  return parts;
}

Model Model::without(std::uint32_t table) const {
  Model rest = *this;
  std::erase_if(rest.entities_,
                [table](const auto& one) { return one.second.table_entry().table_id() == table; });
  return rest;
}

Texts Model::everything() const {
  Texts all;
  for (const auto& [key, entity] : entities_) {
    all.push_back(entity.ShortDebugString());
  }
  std::sort(all.begin(), all.end());
  return all;
}

WriteRequest RandomUpdates::write(const Model& model, bool oneShots, bool l3Acl) {
  WriteRequest request;
  if (oneIn(3)) {
    request.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
  }
  // A long Write has no invalid updates, the others have some or many.
  const bool isLong = oneIn(8);
  const int chances = oneIn(2) ? 12 : 2;
  Model next = model;
  for (int count = 1 + below(isLong ? 200 : 12); count > 0; --count) {
    Update made = update(oneShots, l3Acl);
    if (next.apply(made) == "OK" || (!isLong && oneIn(chances))) {
      *request.add_updates() = std::move(made);
    }
  }
  return request;
}

Update RandomUpdates::update(bool oneShots, bool l3Acl) {
  const auto type = static_cast<Update::Type>(1 + below(3));
  const int kind = oneIn(40) ? below(4) : below(8) + (oneShots ? 4 : 0);
  if (kind < 2) {
    return P4rtTest::update(type, member(1 + below(4), nexthop()));
  }
  if (kind < 4) {
    const bool empty = oneIn(4);
    std::vector<std::pair<int, int>> members;
    for (int id = 1; id <= 4; ++id) {
      if (!oneIn(3) && !empty) {
        members.emplace_back(id, 1 + below(3));
      }
    }
    return P4rtTest::update(type, group(1 + below(3), members));
  }
  return entryUpdate(type, oneShots, l3Acl);
}

Update RandomUpdates::entryUpdate(Update::Type type, bool oneShots, bool l3Acl) {
  const int kind = below(6);
  Update made = P4rtTest::update(
      type, kind < 2 ? route(below(6), routeAction(oneShots)) : acl(below(12), aclAction()));
  p4::v1::TableEntry& entry = *made.mutable_entity()->mutable_table_entry();
  if (kind == 5 && l3Acl) {
    entry.set_table_id(l3AclId);
  }
  if (oneIn(3)) {
    entry.set_metadata(std::string(static_cast<std::size_t>(below(600)), 'm'));
    entry.set_controller_metadata(random_() & 0xFFU);
  }
  if (type == Update::MODIFY && oneIn(3)) {
    entry.clear_action();
  }
  return made;
}

std::string RandomUpdates::nexthop() {
  return P4rtTest::nexthop(oneIn(10) ? noEncap : 1 + below(2), 1 + below(2));
}

std::string RandomUpdates::routeAction(bool oneShots) {
  if (!oneShots) {
    return oneIn(2) ? "action_profile_member_id: " + std::to_string(1 + below(4))
                    : "action_profile_group_id: " + std::to_string(1 + below(3));
  }
  std::vector<std::pair<std::string, int>> actions;
  for (int count = 1 + below(3); count > 0; --count) {
    actions.emplace_back(nexthop(), 1 + below(3));
  }
  return oneShot(actions);
}

std::string RandomUpdates::aclAction() {
  const std::string all[] = {drop(),
                             forward(below(3)),
                             does(10, {octal(1 + below(3)), octal(1 + below(2))}),
                             does(9, {octal(1 + below(4))}),
                             does(5, {octal(1 + below(2)), octal(below(3))}),
                             does(6, {octal(oneIn(2) ? 3 : 17)}),
                             does(4, {octal(1 + below(2))})};
  return all[below(7)];
}

}  // namespace P4rtTest
