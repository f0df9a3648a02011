#include "p4rt/core/Pipeline.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>

#include "p4rt/core/Fault.h"
#include "sim/TablePaths.h"

namespace P4rt {
namespace {

namespace config = p4::config::v1;

constexpr std::string_view annotationName = "ostra";

[[noreturn]] void reject(std::string_view what, std::string_view name, std::string_view why) {
  std::string message{what};
  message.append(" '").append(name).append("' ").append(why);
  refuse(Code::invalidArgument_, std::move(message));
}

// The upper byte of an id is the kind of the object.
void checkId(std::string_view what, const config::Preamble& preamble,
             config::P4Ids::Prefix prefix) {
  if (preamble.id() >> 24U != static_cast<std::uint32_t>(prefix)) {
    reject(what, preamble.name(),
           "has the id " + std::to_string(preamble.id()) + ", whose upper byte is not " +
               std::to_string(static_cast<int>(prefix)));
  }
}

template <class Map>
void insertOnce(std::string_view what, Map& map, std::uint32_t id,
                typename Map::mapped_type&& info) {
  if (const auto [present, fresh] = map.try_emplace(id, std::move(info)); !fresh) {
    reject(what, present->second.name, "shares its id with another one");
  }
}

// The annotation @ostra, or null.
const config::StructuredAnnotation* annotationOf(const config::Preamble& preamble) {
  for (const auto& annotation : preamble.structured_annotations()) {
    if (annotation.name() == annotationName) {
      return &annotation;
    }
  }
  return nullptr;
}

// Refuses the kinds of objects that the switch does not have.
void checkOffered(const config::P4Info& info) {
  const auto none = [](const auto& objects, std::string_view what) {
    if (!objects.empty()) {
      std::string message{what};
      message.append(" are not offered");
      refuse(Code::invalidArgument_, std::move(message));
    }
  };
  none(info.counters(), "indirect counters");
  none(info.meters(), "meters");
  none(info.direct_meters(), "direct meters");
  none(info.controller_packet_metadata(), "packets from and to the controller");
  none(info.value_sets(), "value sets");
  none(info.registers(), "registers");
  none(info.digests(), "digests");
  none(info.externs(), "externs");
}

MatchKind matchKindOf(const config::MatchField& field) {
  switch (field.match_type()) {
    case config::MatchField::EXACT:
      return MatchKind::exact_;
    case config::MatchField::TERNARY:
      return MatchKind::ternary_;
    case config::MatchField::OPTIONAL:
      return MatchKind::optional_;
    default:
      reject("match field", field.name(), "is neither TERNARY nor OPTIONAL nor EXACT");
  }
}

FieldInfo readField(const config::MatchField& field) {
  const std::size_t place = findFieldWord(field.name());
  if (place == fieldWords().size()) {
    reject("match field", field.name(), "is none that the switch knows");
  }
  const FieldWord& word = fieldWords()[place];
  if (field.bitwidth() != word.width) {
    reject("match field", field.name(), "has " + std::to_string(word.width) + " bits");
  }
  const MatchKind kind = matchKindOf(field);
  if (word.exact && kind == MatchKind::ternary_) {
    reject("match field", field.name(), "takes no mask: it is OPTIONAL or EXACT");
  }
  if (field.id() == 0) {
    reject("match field", field.name(), "has no id");
  }
  return {field.id(), field.name(), word.width, kind, place};
}

void readFields(const config::Table& table, TableInfo& read) {
  std::set<std::uint32_t> ids;
  std::set<std::string> names;
  for (const config::MatchField& field : table.match_fields()) {
    const FieldInfo& info = read.fields.emplace_back(readField(field));
    if (!ids.insert(info.id).second || !names.insert(info.name).second) {
      reject("match field", info.name, "of table '" + read.name + "' comes twice");
    }
    read.prioritized = read.prioritized || info.kind != MatchKind::exact_;
  }
}

void readPlacement(const config::Preamble& preamble, TableInfo& read) {
  const auto* const annotation = annotationOf(preamble);
  if (annotation == nullptr || !annotation->has_kv_pair_list()) {
    reject("table", read.name, "has no annotation @ostra[table=..., type=..., priority_group=...]");
  }
  bool placed = false;
  for (const auto& pair : annotation->kv_pair_list().kv_pairs()) {
    const std::int64_t value = pair.value().int64_value();
    const auto within = [&](std::int64_t most) {
      if (!pair.value().has_int64_value() || value < 0 || value > most) {
        reject("table", read.name, "needs '" + pair.key() + "' from 0 to " + std::to_string(most));
      }
      return value;
    };
    if (pair.key() == "table") {
      read.index = static_cast<std::uint8_t>(within(Sim::flowTables - 1));
      placed = true;
    } else if (pair.key() == "type") {
      read.type = static_cast<std::int32_t>(within(1));
    } else if (pair.key() == "priority_group") {
      read.priorityGroup =
          static_cast<std::uint32_t>(within(std::numeric_limits<std::uint32_t>::max()));
    } else {
      reject("table", read.name, "has an unknown key '" + pair.key() + "' in its annotation");
    }
  }
  if (!placed) {
    reject("table", read.name, "does not say which flow table it is");
  }
}

bool hasWord(const ActionInfo& action, std::string_view name) {
  return std::any_of(action.params.begin(), action.params.end(),
                     [name](const ParamInfo& param) { return param.word->name == name; });
}

bool isReference(const ActionInfo& action) {
  return hasWord(action, "group_id") || hasWord(action, "member_id");
}

// Checks that the parameters and flags of an action may be combined.
void checkAction(const ActionInfo& action) {
  const bool policer = hasWord(action, "policer_rate");
  if (policer != hasWord(action, "policer_burst")) {
    reject("action", action.name, "needs both 'policer_rate' and 'policer_burst'");
  }
  for (const FlagWord* const flag : action.flags) {
    if (flag->ofPolicer && !policer) {
      reject("action", action.name, "has '" + std::string{flag->name} + "' and no policer");
    }
  }
  const bool member = std::any_of(action.params.begin(), action.params.end(),
                                  [](const auto& p) { return p.word->of == ActionOf::member_; });
  const bool flow = !action.flags.empty() ||
                    std::any_of(action.params.begin(), action.params.end(),
                                [](const auto& p) { return p.word->of == ActionOf::flow_; });
  if (member && flow) {
    reject("action", action.name, "mixes parameters or flags of a flow with those of a next hop");
  }
  if (isReference(action) &&
      action.params.size() > (hasWord(action, "vrf_id") ? std::size_t{2} : std::size_t{1})) {
    reject("action", action.name, "may have 'vrf_id' beside the group or member, and nothing else");
  }
  if (isReference(action) && !action.flags.empty()) {
    reject("action", action.name, "has flags beside the group or member");
  }
}

ParamInfo readParam(const config::P4Info& info, const config::Action::Param& param) {
  const ParamWord* const word = findParamWord(param.name());
  if (word == nullptr) {
    reject("parameter", param.name(), "is none that the switch knows");
  }
  if (param.id() == 0) {
    reject("parameter", param.name(), "has no id");
  }
  if (word->width != 0 && param.bitwidth() != word->width) {
    reject("parameter", param.name(), "has " + std::to_string(word->width) + " bits");
  }
  const auto& types = info.type_info().new_types();
  const auto type = types.find(param.type_name().name());
  const bool isString = type != types.end() && type->second.translated_type().has_sdn_string();
  if (isString != (word->width == 0)) {
    reject("parameter", param.name(),
           word->width == 0 ? "is a string: its type is translated to sdn_string"
                            : "is a number, and no sdn_string");
  }
  return {param.id(), param.name(), word};
}

void readFlags(const config::Preamble& preamble, ActionInfo& read) {
  const auto* const annotation = annotationOf(preamble);
  if (annotation == nullptr) {
    return;
  }
  for (const auto& expression : annotation->expression_list().expressions()) {
    const FlagWord* const flag = findFlagWord(expression.string_value());
    if (flag == nullptr) {
      reject("action", read.name,
             "has an unknown flag '" + expression.string_value() + "' in its annotation");
    }
    read.flags.push_back(flag);
  }
}

ActionInfo readAction(const config::P4Info& info, const config::Action& action) {
  checkId("action", action.preamble(), config::P4Ids::ACTION);
  ActionInfo read{action.preamble().id(), action.preamble().name(), {}, {}};
  for (const config::Action::Param& param : action.params()) {
    for (const ParamInfo& before : read.params) {
      if (before.id == param.id() || before.name == param.name()) {
        reject("parameter", param.name(), "of action '" + read.name + "' comes twice");
      }
    }
    read.params.push_back(readParam(info, param));
  }
  readFlags(action.preamble(), read);
  checkAction(read);
  return read;
}

// Refuses the features of tables that the switch does not have.
void checkEntries(const config::Table& table) {
  if (table.is_const_table() || table.has_initial_entries()) {
    reject("table", table.preamble().name(), "has entries of its own, which are not offered");
  }
  if (table.idle_timeout_behavior() != config::Table::NO_TIMEOUT) {
    reject("table", table.preamble().name(), "has idle timeouts, which are not offered");
  }
  if (table.size() < 0) {
    reject("table", table.preamble().name(), "has a negative size");
  }
}

bool isCounted(const config::P4Info& info, const config::Table& table) {
  for (const std::uint32_t id : table.direct_resource_ids()) {
    const auto found =
        std::find_if(info.direct_counters().begin(), info.direct_counters().end(),
                     [id](const auto& counter) { return counter.preamble().id() == id; });
    if (found == info.direct_counters().end() ||
        found->direct_table_id() != table.preamble().id()) {
      reject("table", table.preamble().name(),
             "names the direct resource " + std::to_string(id) + ", which is no counter of it");
    }
  }
  return !table.direct_resource_ids().empty();
}

void checkDirectCounters(const config::P4Info& info) {
  for (const config::DirectCounter& counter : info.direct_counters()) {
    checkId("direct counter", counter.preamble(), config::P4Ids::DIRECT_COUNTER);
  }
}

}  // namespace

const FieldInfo* TableInfo::field(std::uint32_t fieldId) const noexcept {
  for (const FieldInfo& info : fields) {
    if (info.id == fieldId) {
      return &info;
    }
  }
  return nullptr;
}

const ActionRef* TableInfo::action(std::uint32_t actionId) const noexcept {
  for (const ActionRef& ref : actions) {
    if (ref.action->id == actionId) {
      return &ref;
    }
  }
  return nullptr;
}

Pipeline::Pipeline(const config::P4Info& info) {
  checkOffered(info);
  checkDirectCounters(info);
  for (const config::Action& action : info.actions()) {
    ActionInfo read = readAction(info, action);
    insertOnce("action", actions_, read.id, std::move(read));
  }
  readProfile(info);
  for (const config::Table& table : info.tables()) {
    readTable(info, table);
  }
  checkReferences();
}

void Pipeline::readProfile(const config::P4Info& info) {
  if (info.action_profiles().empty()) {
    return;
  }
  if (info.action_profiles_size() > 1) {
    refuse(Code::invalidArgument_, "the switch has one action profile");
  }
  const config::ActionProfile& given = info.action_profiles(0);
  checkId("action profile", given.preamble(), config::P4Ids::ACTION_PROFILE);
  ProfileInfo read{.id = given.preamble().id(),
                   .name = given.preamble().name(),
                   .selector = given.with_selector(),
                   .size = given.size(),
                   .maxGroupSize = given.max_group_size(),
                   .countsMembers = given.has_sum_of_members(),
                   .maxWeight = given.sum_of_members().max_member_weight()};
  if (read.size < 0 || read.maxGroupSize < 0 || read.maxWeight < 0 ||
      read.maxGroupSize > static_cast<std::int32_t>(P4RuntimeRouting::maxMembers)) {
    reject("action profile", read.name,
           "needs sizes that are not negative, and groups of at most " +
               std::to_string(P4RuntimeRouting::maxMembers));
  }
  for (const std::uint32_t id : given.table_ids()) {
    const auto table = std::find_if(info.tables().begin(), info.tables().end(),
                                    [id](const auto& one) { return one.preamble().id() == id; });
    if (table == info.tables().end() || table->implementation_id() != read.id) {
      reject(
          "action profile", read.name,
          "lists table " + std::to_string(id) + ", which does not name it as its implementation");
    }
  }
  profile_ = std::move(read);
}

void Pipeline::readTable(const config::P4Info& info, const config::Table& table) {
  checkId("table", table.preamble(), config::P4Ids::TABLE);
  TableInfo read{.id = table.preamble().id(),
                 .name = table.preamble().name(),
                 .index = 0,
                 .type = 0,
                 .priorityGroup = 0,
                 .fields = {},
                 .actions = {},
                 .defaultAction = nullptr,
                 .constantDefault = false,
                 .profile = nullptr,
                 .size = 0,
                 .counted = isCounted(info, table),
                 .prioritized = false};
  readPlacement(table.preamble(), read);
  for (const auto& [id, other] : tables_) {
    if (other.index == read.index) {
      reject("table", read.name,
             "and '" + other.name + "' are both flow table " + std::to_string(read.index));
    }
  }
  checkEntries(table);
  read.size = static_cast<std::uint64_t>(table.size());
  readFields(table, read);
  if (table.implementation_id() != 0) {
    const auto& ids = info.action_profiles();
    if (!profile_ || profile_->id != table.implementation_id() ||
        std::count(ids[0].table_ids().begin(), ids[0].table_ids().end(), read.id) != 1) {
      reject("table", read.name, "names an action profile that does not list it");
    }
    read.profile = &*profile_;
  }
  readActionRefs(table, read);
  insertOnce("table", tables_, read.id, std::move(read));
}

void Pipeline::readActionRefs(const config::Table& table, TableInfo& read) const {
  for (const config::ActionRef& ref : table.action_refs()) {
    const auto action = actions_.find(ref.id());
    if (action == actions_.end() || read.action(ref.id()) != nullptr) {
      reject("table", read.name,
             "names action " + std::to_string(ref.id()) + ", which is not there or comes twice");
    }
    const bool inEntries = ref.scope() != config::ActionRef::DEFAULT_ONLY;
    const ActionOf wanted = read.profile == nullptr ? ActionOf::flow_ : ActionOf::member_;
    for (const ParamInfo& param : action->second.params) {
      if (inEntries && param.word->of != wanted) {
        reject("table", read.name,
               "cannot have the action '" + action->second.name + "'" +
                   (read.profile == nullptr ? ", a next hop: it has no action profile"
                                            : ": its actions are next hops"));
      }
    }
    if (inEntries && read.profile != nullptr && !action->second.flags.empty()) {
      reject("table", read.name,
             "cannot have the action '" + action->second.name + "': its actions are next hops");
    }
    read.actions.push_back(
        {&action->second, inEntries, ref.scope() != config::ActionRef::TABLE_ONLY});
  }
  readDefault(table, read);
}

void Pipeline::readDefault(const config::Table& table, TableInfo& read) {
  const std::uint32_t initial = table.initial_default_action().action_id();
  const std::uint32_t id =
      table.const_default_action_id() != 0 ? table.const_default_action_id() : initial;
  if (id == 0) {
    return;
  }
  const ActionRef* const ref = read.action(id);
  if (ref == nullptr || !ref->asDefault || !ref->action->doesNothing()) {
    reject("table", read.name,
           "has a default action that is not a no-op among its default actions");
  }
  read.defaultAction = ref->action;
  read.constantDefault = table.const_default_action_id() != 0;
}

// An action of a direct table may refer to a group or member; that takes an action profile.
void Pipeline::checkReferences() const {
  for (const auto& [id, action] : actions_) {
    if (isReference(action) && !profile_) {
      reject("action", action.name, "refers to a member or group, and there is no action profile");
    }
  }
}

const TableInfo* Pipeline::table(std::uint32_t id) const noexcept {
  const auto found = tables_.find(id);
  return found == tables_.end() ? nullptr : &found->second;
}

}  // namespace P4rt
