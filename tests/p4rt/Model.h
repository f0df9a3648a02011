// A model of the entities that a switch stores, written from the rules of P4Runtime and of the
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
  // Applies an update if it is valid. Returns its outcome on hardware that takes everything.
  std::string apply(const Update& update);
  // Checks the outcomes of a Write, and applies the updates that succeeded. The outcomes in
  // `ofHardware` are right too where OK was expected.
  void answered(const WriteRequest& request, const Texts& outcomes, const Texts& ofHardware = {});
  // What may be stored after a Write whose server died: the effect of the first updates, or of all
  // or none if it rolls back.
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
