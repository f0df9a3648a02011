// A P4Info as the switch understands it: the meaning of its tables, match fields and actions.
//
// The structured annotation @ostra of a table maps it to a flow table of the switch: "table" is the
// index, 0 to 14, each used once; "type" and "priority_group" become part of the key of each entry.
// With type 1, an exact match on an ether type of IP becomes a layer-3 match. Match fields and
// parameters have the meaning of their names (Words.h). The annotation @ostra of an action lists
// its flags.
//
// Threads: any; a pipeline is constant after construction.
// Ownership: tables, actions and the profile live as long as the pipeline, at the same address.
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
  std::size_t word;  // the index in fieldWords()
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
  bool inEntries;  // allowed in entries
  bool asDefault;  // allowed as the default action
};

struct ProfileInfo {
  std::uint32_t id;
  std::string name;
  bool selector;
  std::int64_t size;          // 0 for no limit
  std::int32_t maxGroupSize;  // 0 for the limit of the switch
  bool countsMembers;         // sizes are numbers of members, otherwise sums of weights
  std::int32_t maxWeight;     // of a member, 0 for no limit
};

struct TableInfo {
  std::uint32_t id;
  std::string name;
  std::uint8_t index;  // the flow table of the switch
  std::int32_t type;
  std::uint32_t priorityGroup;
  std::vector<FieldInfo> fields;
  std::vector<ActionRef> actions;
  const ActionInfo* defaultAction;  // null when the P4Info names none
  bool constantDefault;
  const ProfileInfo* profile;  // null for a direct table
  std::uint64_t size;          // 0 for no limit
  bool counted;                // has a direct counter
  bool prioritized;            // has a field that is not exact, so its entries have priorities

  // Null when the table has no field or action with that id.
  [[nodiscard]] const FieldInfo* field(std::uint32_t fieldId) const noexcept;
  [[nodiscard]] const ActionRef* action(std::uint32_t actionId) const noexcept;
};

class Pipeline {
 public:
  // Throws: Fault when the P4Info is invalid or asks for what the switch does not support.
  explicit Pipeline(const p4::config::v1::P4Info& info);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  // Null when there is none.
  [[nodiscard]] const TableInfo* table(std::uint32_t id) const noexcept;
  // All tables, by id.
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
