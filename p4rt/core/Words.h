// The names that the switch understands in a P4Info: those of match fields, of action parameters
// and of flags. The name alone gives an object its meaning; ids are free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Ostra/OstraTypes.h"
#include "p4rt/core/Bytes.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace P4rt {

// A match field.
struct FieldWord {
  std::string_view name;
  int width;   // in bits
  bool exact;  // the switch takes no mask for it
};

// All match fields, in the order of the fields of Ostra::OstraKey.
[[nodiscard]] std::span<const FieldWord> fieldWords() noexcept;
// The index of the name in fieldWords(), or fieldWords().size() when it is unknown.
[[nodiscard]] std::size_t findFieldWord(std::string_view name) noexcept;

// Writes the field with that index.
// Throws: Fault when the switch cannot hold the value.
void putField(Ostra::OstraKey& key, std::size_t field, const Bits& value, const Bits& mask);

struct FieldValue {
  std::size_t field;  // the index in fieldWords()
  Bits value;
  Bits mask;
};
// Writes the fields that the key constrains to `fields`, in the order of fieldWords(), and returns
// their number.
// Requires: `fields` has room for them; fieldWords().size() is always enough.
std::size_t givenFields(const Ostra::OstraKey& key, std::span<FieldValue> fields);

// What an action with a parameter of that name describes.
enum class ActionOf : std::uint8_t {
  flow_,    // what a flow does
  member_,  // the next hop of a member
};

// A parameter of an action.
struct ParamWord {
  std::string_view name;
  int width;  // in bits; 0 for a string
  ActionOf of;
  // Write the value into a row: a number as `bits`, a string as `text`. Only the function for `of`
  // is set; the other one is null.
  // Throws: Fault when the switch cannot hold the value.
  void (*putInFlow)(Ostra::OstraConfigEntry& row, const Bits& bits, std::string_view text);
  void (*putInMember)(P4RuntimeRouting::NexthopInfo& row, const Bits& bits);
};
// Null when there is none.
[[nodiscard]] const ParamWord* findParamWord(std::string_view name) noexcept;

// Something that a flow does and that needs no parameter. It is named in the annotation of an
// action.
struct FlagWord {
  std::string_view name;
  bool ofPolicer;  // only valid in an action with a policer
  void (*put)(Ostra::OstraConfigEntry& row);
};
// Null when there is none.
[[nodiscard]] const FlagWord* findFlagWord(std::string_view name) noexcept;

}  // namespace P4rt
