// A P4Info as the switch understands it: which of its tables, fields and actions mean what.
//
// A table says by its structured annotation @ostra which flow table it is: "table" (0 to 14, each
// once), "type" (1: an exact ether type of IP becomes a layer-3 type) and "priority_group". Fields
// and parameters mean what their names say (Words.h), whatever their ids are; an action says by
// @ostra which flags it sets.
//
// Thread and process rule: constant after construction.
// Ownership: tables, actions and the profile live as long as the pipeline and never move.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "p4/config/v1/p4info.pb.h"
#include "p4rt/core/Words.h"

namespace P4rt {

enum class MatchKind : std::uint8_t { exact_, ternary_, optional_ };

struct FieldInfo {
  std::uint32_t id;
  std::string name;
  int width;
  MatchKind kind;
  std::size_t word;  // its place among the field words
};

struct ParamInfo {
  std::uint32_t id;
  std::string name;
  const ParamWord* word;
};

struct ActionInfo {
  std::uint32_t id;
  std::string name;
  std::vector<ParamInfo> params;
  std::vector<const FlagWord*> flags;

  [[nodiscard]] bool doesNothing() const noexcept { return params.empty() && flags.empty(); }
};

struct ActionRef {
  const ActionInfo* action;
  bool inEntries;
  bool asDefault;
};

struct ProfileInfo {
  std::uint32_t id;
  std::string name;
  bool selector;
  std::int64_t size;          // 0: no limit
  std::int32_t maxGroupSize;  // 0: no limit but the switch's
  bool countsMembers;         // sizes are numbers of members, not sums of weights
  std::int32_t maxWeight;     // of a member; 0: no limit
};

struct TableInfo {
  std::uint32_t id;
  std::string name;
  std::uint8_t index;  // of the switch's flow table
  std::int32_t type;
  std::uint32_t priorityGroup;
  std::vector<FieldInfo> fields;
  std::vector<ActionRef> actions;
  const ActionInfo* defaultAction;  // null when the P4Info names none
  bool constantDefault;
  const ProfileInfo* profile;  // null of a direct table
  std::uint64_t size;          // 0: no limit
  bool counted;                // has a direct counter
  bool prioritized;            // has a field that is not exact

  // Null when there is none of that id, or the table does not name it.
  [[nodiscard]] const FieldInfo* field(std::uint32_t fieldId) const noexcept;
  [[nodiscard]] const ActionRef* action(std::uint32_t actionId) const noexcept;
};

class Pipeline {
 public:
  // Throws: a Fault that says what the switch cannot do.
  explicit Pipeline(const p4::config::v1::P4Info& info);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  [[nodiscard]] const TableInfo* table(std::uint32_t id) const noexcept;
  // By id.
  [[nodiscard]] const std::map<std::uint32_t, TableInfo>& tables() const noexcept {
    return tables_;
  }
  [[nodiscard]] const std::optional<ProfileInfo>& profile() const noexcept { return profile_; }

 private:
  void readProfile(const p4::config::v1::P4Info& info);
  void readTable(const p4::config::v1::P4Info& info, const p4::config::v1::Table& table);
  void readActionRefs(const p4::config::v1::Table& table, TableInfo& read) const;
  static void readDefault(const p4::config::v1::Table& table, TableInfo& read);
  void checkReferences() const;

  std::map<std::uint32_t, ActionInfo> actions_;
  std::map<std::uint32_t, TableInfo> tables_;
  std::optional<ProfileInfo> profile_;
};

}  // namespace P4rt
