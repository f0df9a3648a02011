// What a switch holds that controllers write to, written from the rules of P4Runtime and of the
// shipped P4Info, and random updates for it.
#pragma once

#include "tests/p4rt/Entities.h"

namespace P4rtTest {

using p4::v1::WriteRequest;

// "OK", "NOT_FOUND", or "INVALID_ARGUMENT/15" with the library's number where there is one.
[[nodiscard]] std::string wordOf(const p4::v1::Error& error);
[[nodiscard]] std::string codeName(std::int32_t code);

class Model {
 public:
  // The outcome of an update on hardware that takes everything; "OK" has its effect.
  std::string apply(const Update& update);
  // Takes what came of a Write. `ofHardware` are the outcomes that may come where OK was expected.
  void answered(const WriteRequest& request, const Texts& outcomes, const Texts& ofHardware = {});
  // What a Write may have made of it whose server died: a first part of the updates, or of one that
  // rolls back all or nothing.
  [[nodiscard]] std::vector<Model> outcomes(const WriteRequest& request) const;
  // Without the entries of a table that is gone.
  [[nodiscard]] Model without(std::uint32_t table) const;

  // What is read back, in order of the text.
  [[nodiscard]] Texts everything() const;

 private:
  // Empty if nothing is wrong.
  [[nodiscard]] std::string faultOf(const Update& update) const;

  std::map<std::string, p4::v1::Entity> entities_;
};

// Updates of few entities, mostly such that the model takes them.
class RandomUpdates {
 public:
  explicit RandomUpdates(std::function<unsigned()> random) : random_{std::move(random)} {}

  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  bool oneIn(int chances) { return below(chances) == 0; }
  // `oneShots`: its action profile takes those, and no members and groups. `l3Acl`: it has that
  // table.
  WriteRequest write(const Model& model, bool oneShots, bool l3Acl = true);

 private:
  Update update(bool oneShots, bool l3Acl);
  Update entryUpdate(Update::Type type, bool oneShots, bool l3Acl);
  std::string nexthop();
  std::string aclAction();
  std::string routeAction(bool oneShots);

  std::function<unsigned()> random_;
};

}  // namespace P4rtTest
