#include "p4rt/core/Translation.h"

#include <array>
#include <limits>
#include <string_view>

#include "p4rt/core/Fault.h"
#include "platform/OpenFlowTable/Types.h"

namespace P4rt {
namespace {

constexpr std::size_t mostFields = static_cast<std::size_t>(Ostra::MatchFieldId::count_);
// An action has no parameter name twice (Pipeline.cpp), so it has at most as many parameters as
// there are names. The limit is above that.
constexpr std::size_t mostParams = 32;

Bits numberOf(std::string_view what, const std::string& bytes, int width) {
  const auto bits = parseBytes(bytes, width);
  if (!bits) {
    refuse(Code::outOfRange_,
           std::string{what} + (bytes.empty()
                                    ? " has no value"
                                    : " needs more than its " + std::to_string(width) + " bits"));
  }
  return *bits;
}

[[noreturn]] void wrongKind(const FieldInfo& field) {
  static constexpr std::array<std::string_view, 3> kinds{"exact", "ternary", "optional"};
  refuse(Code::invalidArgument_, "match field '" + field.name + "' is " +
                                     std::string{kinds[static_cast<std::size_t>(field.kind)]});
}

void putTernary(Ostra::OstraKey& key, const FieldInfo& field,
                const p4::v1::FieldMatch::Ternary& match) {
  const Bits value = numberOf(field.name, match.value(), field.width);
  const Bits mask = numberOf(field.name, match.mask(), field.width);
  if (mask.isZero()) {
    refuse(Code::invalidArgument_,
           "match field '" + field.name + "' has the mask 0: leave out what does not matter");
  }
  if (!value.within(mask)) {
    refuse(Code::invalidArgument_, "match field '" + field.name + "' has bits outside its mask");
  }
  putField(key, field.word, value, mask);
}

void putMatch(Ostra::OstraKey& key, const FieldInfo& field, const p4::v1::FieldMatch& match) {
  const auto putExact = [&](const std::string& bytes) {
    putField(key, field.word, numberOf(field.name, bytes, field.width), Bits::allOnes(field.width));
  };
  switch (field.kind) {
    case MatchKind::exact_:
      match.has_exact() ? putExact(match.exact().value()) : wrongKind(field);
      break;
    case MatchKind::optional_:
      match.has_optional() ? putExact(match.optional().value()) : wrongKind(field);
      break;
    case MatchKind::ternary_:
      match.has_ternary() ? putTernary(key, field, match.ternary()) : wrongKind(field);
      break;
  }
}

void checkPriority(const TableInfo& table, std::int32_t priority) {
  if (table.prioritized != (priority > 0) || priority < 0) {
    refuse(Code::invalidArgument_,
           "priority " + std::to_string(priority) + ": table '" + table.name +
               (table.prioritized ? "' needs one above 0" : "' is exact and has none"));
  }
  if (priority > OpenFlowTable::Priority::max) {
    refuse(Code::outOfRange_, "priority " + std::to_string(priority) + " is above " +
                                  std::to_string(OpenFlowTable::Priority::max));
  }
}

// Calls visit(param, value) for each parameter.
template <class Visit>
void forEachParam(const PackedAction& packed, Visit visit) {
  std::string_view rest = packed.params;
  for (const ParamInfo& param : packed.action->params) {
    const auto length = static_cast<std::uint8_t>(rest.front());
    visit(param, rest.substr(1, length));
    rest.remove_prefix(std::size_t{1} + length);
  }
}

// The value in the form in which it is stored.
std::string_view storedValue(const ParamInfo& param, const std::string& value) {
  if (param.word->width != 0) {
    static_cast<void>(numberOf(param.name, value, param.word->width));
    return canonicalBytes(value);
  }
  if (value.size() > std::numeric_limits<std::uint8_t>::max()) {
    refuse(Code::outOfRange_, "parameter '" + param.name + "' is longer than any name");
  }
  return value;
}

}  // namespace

Ostra::OstraKey keyOf(const TableInfo& table, const p4::v1::TableEntry& entry) {
  checkPriority(table, entry.priority());
  Ostra::OstraKey key = matchOf(table, entry);
  key.priorityIs(entry.priority());
  return key;
}

Ostra::OstraKey matchOf(const TableInfo& table, const p4::v1::TableEntry& entry) {
  Ostra::OstraKey key;
  key.tableTypeIs(table.type);
  key.priorityGroupTypeIs(table.priorityGroup);
  for (const p4::v1::FieldMatch& match : entry.match()) {
    const FieldInfo* const field = table.field(match.field_id());
    if (field == nullptr) {
      refuse(Code::invalidArgument_,
             "table '" + table.name + "' has no match field " + std::to_string(match.field_id()));
    }
    if (key.given(static_cast<Ostra::MatchFieldId>(field->word))) {
      refuse(Code::invalidArgument_, "match field '" + field->name + "' comes twice");
    }
    putMatch(key, *field, match);
  }
  for (const FieldInfo& field : table.fields) {
    if (field.kind == MatchKind::exact_ &&
        !key.given(static_cast<Ostra::MatchFieldId>(field.word))) {
      refuse(Code::invalidArgument_, "match field '" + field.name + "' is missing");
    }
  }
  return key;
}

void writeKey(const TableInfo& table, const Ostra::OstraKey& key, p4::v1::TableEntry& entry) {
  std::array<FieldValue, mostFields> values;
  const std::size_t given = givenFields(key, values);
  entry.set_table_id(table.id);
  entry.set_priority(key.priority());
  for (std::size_t at = 0; at < given; ++at) {
    for (const FieldInfo& field : table.fields) {
      if (field.word != values[at].field) {
        continue;
      }
      p4::v1::FieldMatch& match = *entry.add_match();
      match.set_field_id(field.id);
      if (field.kind == MatchKind::exact_) {
        match.mutable_exact()->set_value(canonicalBytes(values[at].value));
      } else if (field.kind == MatchKind::optional_) {
        match.mutable_optional()->set_value(canonicalBytes(values[at].value));
      } else {
        match.mutable_ternary()->set_value(canonicalBytes(values[at].value));
        match.mutable_ternary()->set_mask(canonicalBytes(values[at].mask));
      }
    }
  }
}

PackedAction packAction(const ActionInfo& info, const p4::v1::Action& action) {
  std::array<const std::string*, mostParams> values{};
  for (const p4::v1::Action::Param& given : action.params()) {
    std::size_t at = 0;
    while (at < info.params.size() && info.params[at].id != given.param_id()) {
      ++at;
    }
    if (at == info.params.size() || values[at] != nullptr) {
      refuse(Code::invalidArgument_,
             "parameter " + std::to_string(given.param_id()) + " of action '" + info.name +
                 (at == info.params.size() ? "' does not exist" : "' comes twice"));
    }
    values[at] = &given.value();
  }
  PackedAction packed{&info, {}};
  for (std::size_t at = 0; at < info.params.size(); ++at) {
    if (values[at] == nullptr) {
      refuse(Code::invalidArgument_,
             "parameter '" + info.params[at].name + "' of action '" + info.name + "' is missing");
    }
    const std::string_view value = storedValue(info.params[at], *values[at]);
    packed.params.push_back(static_cast<char>(value.size()));
    packed.params.append(value);
  }
  return packed;
}

void writeAction(const PackedAction& packed, p4::v1::Action& action) {
  action.set_action_id(packed.action->id);
  forEachParam(packed, [&action](const ParamInfo& param, std::string_view bytes) {
    p4::v1::Action::Param& written = *action.add_params();
    written.set_param_id(param.id);
    written.set_value(std::string{bytes});
  });
}

void applyAction(const PackedAction& packed, Ostra::OstraConfigEntry& row) {
  forEachParam(packed, [&row](const ParamInfo& param, std::string_view bytes) {
    const bool isText = param.word->width == 0;
    const Bits bits = isText ? Bits{} : parseBytes(bytes, param.word->width).value_or(Bits{});
    param.word->putInFlow(row, bits, isText ? bytes : std::string_view{});
  });
  for (const FlagWord* const flag : packed.action->flags) {
    flag->put(row);
  }
}

void applyAction(const PackedAction& packed, P4RuntimeRouting::NexthopInfo& row) {
  forEachParam(packed, [&row](const ParamInfo& param, std::string_view bytes) {
    param.word->putInMember(row, parseBytes(bytes, param.word->width).value_or(Bits{}));
  });
}

}  // namespace P4rt
